// Any bytes as a manifest and, after a NUL, as a payload.
#include "install/PatchFile.h"
#include "PatchBytes.h"
#include "Sandbox.h"

using namespace zel;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const Sandbox sandbox;
    static const auto path = sandbox.path("patch");
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const qsizetype end = bytes.contains('\0') ? bytes.indexOf('\0') : bytes.size();
    const QByteArray file = patchBytes(bytes.left(end), bytes.mid(end + 1));
    Sandbox::write(path, file.toStdString());
    PatchFile patch;
    require(!PatchFile::read(QString::fromStdString(path), {}, patch) && patch.payload == bytes.mid(end + 1));
    for (const PatchCommand &command : patch.commands) {
        if (const auto slice = patch.slice(command))
            require(slice->begin() >= patch.payload.begin() && slice->end() <= patch.payload.end());
    }
    return 0;
}
