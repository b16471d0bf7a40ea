#include "TestCertificate.h"

#include <QProcess>
#include <QSslCertificate>

TestCertificate makeTestCertificate(const QString &folder, const QString &name, const QStringList &key)
{
    const QString path = folder + u'/' + name;
    TestCertificate made{path + ".key", path + ".crt", {}};
    QProcess openssl;
    openssl.start("openssl",
                  QStringList{"req", "-x509", "-nodes", "-days", "1", "-keyout", made.keyFile, "-out",
                              made.certificateFile, "-subj", "/CN=" + name, "-addext",
                              "subjectAltName=IP:127.0.0.1", "-newkey"}
                      + key);
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        qFatal("cannot make a test certificate: %s", openssl.readAllStandardError().constData());
    const QSslCertificate certificate = QSslCertificate::fromPath(made.certificateFile).value(0);
    made.fingerprint = certificate.digest(QCryptographicHash::Sha256).toHex(':').toUpper();
    return made;
}
