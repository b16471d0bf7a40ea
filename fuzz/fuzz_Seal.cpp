// Any bytes as each of the two files of a seal.
#include "Sandbox.h"
#include "seal/SealedItems.h"
#include "seal/SealSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    zel::verifySignature("sealed", bytes, QStringList{QString(64, u'0')});
    const auto items = zel::fromPropertyList(bytes);
    if (!items || zel::checkNames(*items))
        return 0;
    qint64 names = 100'000;
    zel::checkLinks(*items, {}, names);
    const auto again = zel::fromPropertyList(zel::toPropertyList(*items));
    zel::require(again && !zel::compareItems(*items, *again, {}, {}));
    return 0;
}
