// Patch files of hostile commands, applied to a bundle that holds links of all kinds. Nothing is written
// beside the new bundle, and no more in it than the patch may write.
#include "generate/bsdiff2.h"
#include "HostilePath.h"
#include "install/MD5FromData.h"
#include "install/PatchFile.h"
#include "install/PatchRunner.h"
#include "install/SHA256.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "PatchBytes.h"
#include "publish/PatchWriter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace zel;

namespace {

struct Fixture {
    Fixture()
    {
        // Each applied patch leaves a folder there.
        require(::setenv("TMPDIR", sandbox.inside().c_str(), 1) == 0);
        std::filesystem::create_directories(sandbox.path("old.app/folder"));
        Sandbox::write(sandbox.path("old.app/file"), "old file");
        Sandbox::write(sandbox.path("old.app/folder/file"), "deep");
        Sandbox::write(sandbox.path("new file"), "new file");
        const std::pair<const char *, const char *> links[] = {
            {"link", "file"}, {"self", "."}, {"New", "folder"}, {"out", "../../beside"}};
        for (const auto &[name, target] : links)
            std::filesystem::create_symlink(target, sandbox.path("old.app") / name);
        const auto bytes = bsdiff2(sandbox.path("old.app/file"), sandbox.path("new file"));
        payload = QByteArray(reinterpret_cast<const char *>(bytes->data()), qsizetype(bytes->size()));
        deltaSize = payload.size();
        payload += QByteArray(200'000, 'x'); // few enough of them are more than a patch may write
    }

    Sandbox sandbox;
    QByteArray payload;
    qsizetype deltaSize;
};

void addNewKeys(FuzzedDataProvider &input, const Fixture &fixture, PatchCommand &command)
{
    const bool copies = command.action == PatchAction::Copy;
    command.hash.reset();
    command.from = QString::fromStdString(hostilePath(input, fixture.sandbox));
    command.mode = input.ConsumeIntegral<int>() & 07777;
    if (copies || command.action == PatchAction::Patch) {
        command.sha256 = sha256Of(copies ? "old file" : "new file");
        command.size = input.ConsumeBool() ? 8 : input.ConsumeIntegralInRange<qint64>(0, 1 << 30);
    }
}

PatchCommand commandFrom(FuzzedDataProvider &input, const Fixture &fixture, bool isNew)
{
    PatchCommand command;
    command.action = PatchAction(input.ConsumeIntegralInRange(0, int(PatchAction::Mode)));
    command.path = QString::fromStdString(hostilePath(input, fixture.sandbox));
    command.symlink = QString::fromStdString(hostilePath(input, fixture.sandbox));
    command.slices = {{0, fixture.deltaSize}};
    command.hash = MD5FromData("new file");
    if (isNew)
        addNewKeys(input, fixture, command);
    const int kind = input.ConsumeIntegralInRange(0, 7);
    if (kind == 0) {
        command.slices = {{0, fixture.payload.size()}};
    } else if (kind <= 2) {
        command.slices = {{input.ConsumeIntegral<qint64>(), input.ConsumeIntegral<qint64>()}};
        if (isNew && kind == 2)
            command.slices.push_back({0, input.ConsumeIntegral<qint64>()});
    }
    return command;
}

qint64 sizeOf(const std::filesystem::path &folder)
{
    qint64 size = 0;
    for (const auto &item : std::filesystem::recursive_directory_iterator(folder))
        size += !item.is_symlink() && item.is_regular_file() ? qint64(item.file_size()) : 0;
    return size;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const Fixture fixture;
    const Sandbox &sandbox = fixture.sandbox;
    FuzzedDataProvider input(data, size);
    QJsonArray commands;
    const bool isNew = input.ConsumeBool();
    if (isNew)
        commands.append(QJsonObject{{QLatin1String("path"), QString()}});
    while (input.remaining_bytes() > 0 && commands.size() < 12)
        commands.append(manifestEntry(commandFrom(input, fixture, isNew)));
    const QJsonDocument manifest(
        QJsonObject{{QLatin1String("format"), isNew ? 2 : 1}, {QLatin1String("commands"), commands}});
    const QByteArray patch = patchBytes(manifest.toJson(), fixture.payload);
    std::filesystem::remove_all(sandbox.inside());
    std::filesystem::create_directory(sandbox.inside());
    Sandbox::write(sandbox.path("patch"), {patch.constData(), size_t(patch.size())});
    const auto before = sandbox.surroundings();
    const auto path = [&](const char *name) { return QString::fromStdString(sandbox.path(name)); };
    QVariantList log;
    ZELUpdaterApplyPatch(path("old.app"), path("inside/new.app"), path("patch"), log);
    require(sandbox.surroundings() == before);
    const qint64 oldSize = sizeOf(sandbox.path("old.app"));
    require(sizeOf(sandbox.inside()) <= oldSize
                + (isNew ? PatchFile::changeLimit(oldSize, patch.size())
                         : 2 * fixture.payload.size() + SmallChange));
    return 0;
}
