#include "TestCertificate.h"

#include <QProcess>
#include <QSslCertificate>

namespace {

TestCertificate makeCertificate(TestCertificate made, const QString &name, const QStringList &words)
{
    QProcess openssl;
    openssl.start("openssl",
                  QStringList{"req", "-x509", "-nodes", "-days", "1", "-out", made.certificateFile, "-subj",
                              "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1"}
                      + words);
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        qFatal("cannot make a test certificate: %s", openssl.readAllStandardError().constData());
    const QSslCertificate certificate = QSslCertificate::fromPath(made.certificateFile).value(0);
    made.fingerprint = certificate.digest(QCryptographicHash::Sha256).toHex(':').toUpper();
    return made;
}

} // namespace

TestCertificate makeTestCertificate(const QString &folder, const QString &name, const QStringList &key)
{
    const QString path = folder + u'/' + name;
    return makeCertificate({path + ".key", path + ".crt", {}}, name,
                           QStringList{"-keyout", path + ".key", "-newkey"} + key);
}

TestCertificate makeSecondCertificate(const TestCertificate &first, const QString &name)
{
    const QString compressed = first.keyFile + u'.' + name;
    if (QProcess::execute("openssl",
                          {"ec", "-in", first.keyFile, "-conv_form", "compressed", "-out", compressed}))
        qFatal("cannot write %s", qPrintable(compressed));
    return makeCertificate({first.keyFile, first.certificateFile + u'.' + name, {}}, name,
                           {"-new", "-key", compressed});
}
