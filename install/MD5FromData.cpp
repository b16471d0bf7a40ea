#include "MD5FromData.h"

#include "MD5Digest.h"

QString MD5FromData(QByteArrayView data)
{
    zel::MD5Digest digest;
    digest.add(data);
    // Neither null nor empty: both compare equal to the hash of whole chunks.
    return digest.result().value_or(QStringLiteral("MD5 is refused"));
}
