// Any bytes as a property list.
#include "platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    zel::readPropertyList(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    return 0;
}
