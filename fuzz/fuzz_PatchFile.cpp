// Any bytes as a manifest and, after a NUL, as a payload.
#include "PatchFile.h"
#include "Sandbox.h"
#include "XZ.h"

using namespace zel;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const Sandbox sandbox;
    static const auto path = sandbox.path("patch");
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const qsizetype end = bytes.contains('\0') ? bytes.indexOf('\0') : bytes.size();
    const QByteArray manifest = compressXZ(bytes.left(end), XZEffort::Quick).value();
    const QByteArray payload = compressXZ(bytes.mid(end + 1), XZEffort::Quick).value();
    const QByteArray header = QByteArray::number(manifest.size()).leftJustified(PatchFile::HeaderSize, '\0');
    Sandbox::write(path, (header + manifest + payload).toStdString());
    PatchFile patch;
    require(!PatchFile::read(QString::fromStdString(path), patch) && patch.payload == bytes.mid(end + 1));
    for (const PatchCommand &command : patch.commands) {
        if (const auto slice = patch.slice(command))
            require(slice->begin() >= patch.payload.begin() && slice->end() <= patch.payload.end());
    }
    return 0;
}
