// Keys and certificates made on the spot.
#pragma once

#include <QStringList>

struct TestCertificate {
    QString keyFile; ///< PEM
    QString certificateFile; ///< PEM
    QString fingerprint; ///< SHA-256 of the certificate, as upper-case pairs with colons between
};

/// Makes a key, as the words after `openssl req -newkey` say, with a self-signed certificate for `name` and
/// for a server on loopback, as `name.key` and `name.crt` in the folder. A test that cannot have them ends
/// here.
TestCertificate makeTestCertificate(const QString &folder, const QString &name,
                                    const QStringList &key = {"ec", "-pkeyopt", "ec_paramgen_curve:P-256"});

/// Another certificate of the same P-256 key, as after a renewal; it writes the key in another way.
TestCertificate makeSecondCertificate(const TestCertificate &first, const QString &name);
