#include "rows.h"

#include "delta/bspatch2.h"
#include "install/PatchFile.h"

#include <QFile>

#include <fstream>

namespace bench {
namespace {

namespace fs = std::filesystem;

// Two releases of a program or of a whole tree, and where what is made of them goes.
struct Pair {
    std::string name;
    fs::path data;

    fs::path oldItem() const { return data / (name + ".old"); }
    fs::path newItem() const { return data / (name + ".new"); }
    fs::path made(const char *what) const { return data / (name + what); }

    // The release as a bundle: itself, or a folder with the program in it.
    fs::path bundle(const char *side) const
    {
        const fs::path item = data / (name + '.' + side);
        const fs::path folder = fs::is_directory(item) ? item : data / (name + '-' + side);
        if (fs::create_directory(folder))
            fs::create_hard_link(item, folder / "program");
        if (!fs::exists(folder / "Info.plist")) // without which it is no bundle
            std::ofstream(folder / "Info.plist") << "<plist version=\"1.0\"><dict><key>CFBundleVersion</key>"
                                                    "<string>1</string></dict></plist>";
        return folder;
    }

    std::vector<std::string> makePatch() const
    {
        return {ZEL_TOOL, "make-patch", bundle("old"), bundle("new"), made(".patch")};
    }

    // For clients that know the first format alone.
    std::vector<std::string> makeFirstPatch() const
    {
        return {ZEL_TOOL,      "make-patch",  "--format",     "1", "--allow-lost-modes",
                bundle("old"), bundle("new"), made(".patch1")};
    }
};

double megabytes(double bytes)
{
    return bytes / (1 << 20);
}

// Has a file made by a command unless it is there.
bool ensure(const fs::path &file, const std::string &commands)
{
    return fs::exists(file) || shell(commands);
}

bool ensureMade(const fs::path &file, const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += shellWord(word) + ' ';
    return ensure(file, line);
}

bool ensureDelta(const Pair &pair)
{
    return ensure(pair.made(".delta"),
                  shellWord(ZEL_TOOL) + " diff " + shellWord(pair.oldItem()) + ' ' + shellWord(pair.newItem())
                      + ' ' + shellWord(pair.made(".delta")));
}

std::vector<std::string> xdelta(const Pair &pair)
{
    return {"xdelta3", "-9", "-f",           "-B",           std::to_string(fs::file_size(pair.oldItem())),
            "-e",      "-s", pair.oldItem(), pair.newItem(), pair.made(".xdelta")};
}

void addProgram(std::vector<Row> &rows, const Pair &pair, double sizeGoal)
{
    const auto zstd = [&pair](const char *level, const char *output) {
        return commandWithout(pair.made(output),
                              {"zstd", level, "--long=31", "-q", "-f",
                               "--patch-from=" + pair.oldItem().string(), pair.newItem(), "-o",
                               pair.made(output)});
    };
    const double oldSize = double(fs::file_size(pair.oldItem()));
    const double newSize = double(fs::file_size(pair.newItem()));
    rows.push_back(
        {.unit = "make-patch",
         .data = pair.name,
         .work = commandWithout(pair.made(".patch"), pair.makePatch()),
         .output = pair.made(".patch"),
         .peers = {{.name = "zstd -19 --long=31 --patch-from",
                    .work = zstd("-19", ".zst19"),
                    .output = pair.made(".zst19"),
                    .timeGoal = 0.7,
                    .sizeGoal = sizeGoal},
                   {.name = "zstd -3 --long=31 --patch-from",
                    .work = zstd("-3", ".zst3"),
                    .output = pair.made(".zst3")},
                   {.name = "xdelta3 -9", .work = command(xdelta(pair)), .output = pair.made(".xdelta")},
                   {.name = "xz -6 of the new program",
                    .work = command(
                        {"bash", "-c",
                         "xz -6 -c " + shellWord(pair.newItem()) + " >" + shellWord(pair.made(".xz"))}),
                    .output = pair.made(".xz")}},
         .slow = true,
         .memoryGoal = megabytes(11 * oldSize + 5 * newSize) + 144});
}

void addFirstFormat(std::vector<Row> &rows, const Pair &pair)
{
    rows.push_back({.unit = "make-patch --format 1",
                    .data = pair.name,
                    .work = commandWithout(pair.made(".patch1"), pair.makeFirstPatch()),
                    .output = pair.made(".patch1"),
                    .peers = {},
                    .slow = true});
}

void addTree(std::vector<Row> &rows, const Pair &pair, double sizeGoal)
{
    const auto pack = [](const fs::path &tree) {
        return "tar --sort=name --mtime=@0 -C " + shellWord(tree) + " -cf - .";
    };
    const std::string compress = pack(pair.newItem()) + " | xz -9 >" + shellWord(pair.made(".tar.xz"));
    const std::string difference = pack(pair.oldItem()) + " >" + shellWord(pair.made(".old.tar")) + "; "
        + pack(pair.newItem()) + " >" + shellWord(pair.made(".new.tar"))
        + "; zstd -19 --long=31 -q -f --patch-from=" + shellWord(pair.made(".old.tar")) + ' '
        + shellWord(pair.made(".new.tar")) + " -o " + shellWord(pair.made(".tar.zst19"));
    rows.push_back({.unit = "make-patch",
                    .data = pair.name,
                    .work = commandWithout(pair.made(".patch"), pair.makePatch()),
                    .output = pair.made(".patch"),
                    .peers = {{.name = "zstd -19 --long=31 --patch-from over tars of both trees",
                               .work = command({"bash", "-c", difference}),
                               .output = pair.made(".tar.zst19"),
                               .timeGoal = 0.7,
                               .sizeGoal = sizeGoal},
                              {.name = "tar and xz -9 of the new tree",
                               .work = command({"bash", "-c", compress}),
                               .output = pair.made(".tar.xz")}},
                    .slow = true});
}

std::vector<std::byte> contents(const fs::path &path)
{
    std::vector<std::byte> bytes(fs::file_size(path));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)
        || file.read(reinterpret_cast<char *>(bytes.data()), qint64(bytes.size())) < 0)
        bytes.clear();
    return bytes;
}

void addDeltaApplication(std::vector<Row> &rows, const Pair &pair)
{
    const auto apply = [pair](const auto &timed) {
        if (!ensureDelta(pair))
            return false;
        const std::vector<std::byte> delta = contents(pair.made(".delta"));
        fs::remove(pair.made(".built"));
        int result = -1;
        timed([&] { result = bspatch2(pair.oldItem(), pair.made(".built"), delta); });
        return result == 0;
    };
    const std::string copy = "cat " + shellWord(pair.oldItem()) + ' ' + shellWord(pair.made(".delta"))
        + " >/dev/null; cp " + shellWord(pair.newItem()) + ' ' + shellWord(pair.made(".copy"));
    rows.push_back({.unit = "bspatch2",
                    .data = pair.name,
                    .work = apply,
                    .peers = {{.name = "cat old delta, cp new",
                               .work = commandWithout(pair.made(".copy"), {"bash", "-c", copy}),
                               .timeGoal = 2}}});
}

void addDecodedApplication(std::vector<Row> &rows, const Pair &pair)
{
    const auto decodeAndApply = [pair](const auto &timed) {
        if (!ensureMade(pair.made(".patch1"), pair.makeFirstPatch()))
            return false;
        fs::remove(pair.made(".built"));
        int result = -1;
        timed([&] {
            zel::PatchFile patch;
            if (!zel::PatchFile::read(QString::fromStdString(pair.made(".patch1")), {}, patch)
                && patch.manifest.commands.size() == 1) {
                const QByteArray delta =
                    patch.contentOf(patch.manifest.commands.front()).value_or(QByteArray());
                result = bspatch2(pair.oldItem(), pair.made(".built"), std::as_bytes(std::span(delta)));
            }
        });
        return result == 0;
    };
    const auto xdeltaApply = [pair](const auto &timed) {
        if (!fs::exists(pair.made(".xdelta")) && !command(xdelta(pair))([](const auto &core) { core(); }))
            return false;
        return commandWithout(
            pair.made(".copy"),
            {"xdelta3", "-d", "-s", pair.oldItem(), pair.made(".xdelta"), pair.made(".copy")})(timed);
    };
    rows.push_back({.unit = "xz and bspatch2",
                    .data = pair.name,
                    .work = decodeAndApply,
                    .peers = {{.name = "xdelta3 -d", .work = xdeltaApply, .timeGoal = 0.6}}});
}

// The payload of the patch and the list of the files that it changes, for the peer of apply-patch.
bool ensureParts(const Pair &pair)
{
    const std::string patch = shellWord(pair.made(".patch"));
    return ensureMade(pair.made(".patch"), pair.makePatch())
        && ensure(pair.made(".payload.xz"),
                  "tail -c +$((33 + $(head -c 32 " + patch + " | tr -d '\\0'))) " + patch + " >"
                      + shellWord(pair.made(".payload.xz")) + "; cd " + shellWord(pair.bundle("new"))
                      + "; find . -type f | while read -r f; do cmp -s \"$f\" "
                      + shellWord(pair.bundle("old")) + "/\"$f\" || echo \"$f\"; done >"
                      + shellWord(pair.made(".changed")));
}

void addApplication(std::vector<Row> &rows, const Pair &pair, double timeGoal)
{
    const auto prepared = [pair](const Work &work) {
        return [pair, work](const auto &timed) { return ensureParts(pair) && work(timed); };
    };
    const std::string steps = "cp -a " + shellWord(pair.bundle("old")) + ' ' + shellWord(pair.made(".copied"))
        + "; xz -dc " + shellWord(pair.made(".payload.xz")) + " >/dev/null; cd "
        + shellWord(pair.bundle("new")) + "; xargs -d '\\n' md5sum <" + shellWord(pair.made(".changed"));
    rows.push_back({.unit = "apply-patch",
                    .data = pair.name,
                    .work = prepared(commandWithout(pair.made(".built.app"),
                                                    {ZEL_TOOL, "apply-patch", pair.bundle("old"),
                                                     pair.made(".built.app"), pair.made(".patch")})),
                    .peers = {{.name = "cp -a, xz -dc, md5sum",
                               .work = prepared(commandWithout(pair.made(".copied"), {"bash", "-ec", steps})),
                               .timeGoal = timeGoal}}});
}

} // namespace

void addPatchRows(std::vector<Row> &rows, const fs::path &data)
{
    const Pair notifier{"notifier", data};
    const Pair esbuild{"esbuild", data};
    const Pair biome{"biome", data};
    const Pair esbuildX64{"esbuild-x64", data};
    const Pair biomeX64{"biome-x64", data};
    const Pair flipper{"flipper", data};
    addProgram(rows, esbuild, 0.33);
    addProgram(rows, biome, 0.42);
    addProgram(rows, esbuildX64, 0.27);
    addProgram(rows, biomeX64, 0.62);
    addFirstFormat(rows, esbuild);
    addTree(rows, notifier, 1);
    addTree(rows, flipper, 0.90);
    for (const Pair &pair : {esbuild, biome}) {
        addDeltaApplication(rows, pair);
        addDecodedApplication(rows, pair);
    }
    constexpr double withReferences = 1.3;
    for (const Pair &pair : {esbuild, biome, esbuildX64, biomeX64})
        addApplication(rows, pair, withReferences);
    addApplication(rows, flipper, 1.1);
}

} // namespace bench
