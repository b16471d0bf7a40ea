// Seals and signed records with keys made on the spot.
#pragma once

#include "seal/BundleSeal.h"
#include "TestCertificate.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

inline QList<zel::Signer> signersOf(const QList<TestCertificate> &certificates)
{
    QList<zel::Signer> signers;
    for (const TestCertificate &certificate : certificates) {
        signers.append(zel::Signer());
        if (const ZELError error = signers.last().load(certificate.keyFile, certificate.certificateFile))
            qFatal("%s", qPrintable(error.message));
    }
    return signers;
}

/// As the publisher's tool does: the key and its certificate are read first.
inline ZELError sealWith(const QString &bundle, const QString &keyFile, const QString &certificateFile)
{
    zel::Signer signer;
    const ZELError error = signer.load(keyFile, certificateFile);
    return error ? error : zel::sealBundle(bundle, {signer});
}

inline ZELError sealWith(const QString &bundle, const TestCertificate &signer)
{
    return sealWith(bundle, signer.keyFile, signer.certificateFile);
}

/// What stands under "signed" where `content` was signed.
inline QString signatureOver(const QByteArray &content, const QList<zel::Signer> &signers)
{
    QByteArray message;
    if (zel::signWith(signers, content, zel::SignatureKind::Attached, message))
        qFatal("cannot sign");
    return QString::fromLatin1(message.toBase64());
}

/// The record with its signature. Dates and the list of builds are put in where it has none.
inline QJsonObject signedRecord(QJsonObject record, const QList<zel::Signer> &signers)
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const QJsonObject usual{
        {"issued", now}, {"expires", now + 3600}, {"builds", QJsonArray{record["build"]}}};
    for (auto key = usual.begin(); key != usual.end(); ++key) {
        if (!record.contains(key.key()))
            record[key.key()] = key.value();
    }
    record["signed"] = signatureOver(QJsonDocument(record).toJson(QJsonDocument::Compact), signers);
    return record;
}
