#include "MD5FromData.h"

#include "MD5Digest.h"

QString MD5FromData(QByteArrayView data)
{
    zel::MD5Digest digest;
    digest.add(data);
    return digest.result();
}
