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
    if (PatchFile::read(QString::fromStdString(path), {}, patch))
        return 0;
    require(patch.payload == bytes.mid(end + 1));
    require(patch.manifest.format == 1 || patch.manifest.format == 2);
    for (const PatchCommand &command : patch.manifest.commands) {
        const auto content = patch.contentOf(command);
        require(patch.sizeOfContent(command).value_or(-1) == (content ? content->size() : -1));
        require(!command.mode || (*command.mode >= 0 && *command.mode <= 0777));
        const bool fromOld = command.action == PatchAction::Copy
            || (command.action == PatchAction::Patch && patch.manifest.format == 2);
        require(!fromOld || (command.sha256 && command.size.value_or(-1) >= 0));
    }
    return 0;
}
