// Keys and certificates made on the spot.
#pragma once

#include <QString>

struct TestCertificate {
    QString keyFile; ///< PEM
    QString certificateFile; ///< PEM
    QString fingerprint; ///< SHA-256 of the certificate, as upper-case pairs with colons between
};

/// Makes an elliptic-curve key (P-256) with a self-signed certificate for `name` and for a server on
/// loopback, as `name.key` and `name.crt` in the folder. A test that cannot have them ends here.
TestCertificate makeTestCertificate(const QString &folder, const QString &name);
