// Patch files of hostile commands, applied to a bundle that holds links of all kinds.
#include "bsdiff2.h"
#include "HostilePath.h"
#include "MD5FromData.h"
#include "PatchBytes.h"
#include "PatchFile.h"
#include "ZELUpdaterApplyPatch.h"

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
        delta = QByteArray(reinterpret_cast<const char *>(bytes->data()), qsizetype(bytes->size()));
    }

    Sandbox sandbox;
    QByteArray delta;
};

PatchCommand commandFrom(FuzzedDataProvider &input, const Fixture &fixture)
{
    PatchCommand command;
    command.action = PatchAction(input.ConsumeIntegralInRange(0, int(PatchAction::Patch)));
    command.path = QString::fromStdString(hostilePath(input, fixture.sandbox));
    command.symlink = QString::fromStdString(hostilePath(input, fixture.sandbox));
    command.length = fixture.delta.size();
    command.hash = MD5FromData("new file");
    if (input.ConsumeIntegralInRange(0, 3) == 0) {
        command.position = input.ConsumeIntegral<qint64>();
        command.length = input.ConsumeIntegral<qint64>();
    }
    return command;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const Fixture fixture;
    const Sandbox &sandbox = fixture.sandbox;
    FuzzedDataProvider input(data, size);
    QJsonArray commands;
    while (input.remaining_bytes() > 0 && commands.size() < 12)
        commands.append(commandFrom(input, fixture).toJson());
    const QJsonDocument manifest(QJsonObject{{QLatin1String("commands"), commands}});
    const QByteArray patch = patchBytes(manifest.toJson(), fixture.delta);
    std::filesystem::remove_all(sandbox.inside());
    std::filesystem::create_directory(sandbox.inside());
    Sandbox::write(sandbox.path("patch"), {patch.constData(), size_t(patch.size())});
    const auto before = sandbox.surroundings();
    const auto path = [&](const char *name) { return QString::fromStdString(sandbox.path(name)); };
    QVariantList log;
    ZELUpdaterApplyPatch(path("old.app"), path("inside/new.app"), path("patch"), log);
    require(sandbox.surroundings() == before);
    return 0;
}
