#include "rows.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

// A small patch that is made to take much. What the shell prints becomes its manifest's commands and its
// payload.
struct HostilePatch {
    const char *what;
    const char *commands;
    const char *payload = "printf payload";
};

constexpr HostilePatch Patches[] = {
    {"values", R"(head -c 1590000 /dev/zero | sed 's/\x0/0,/g'; printf 0)"},
    {"lists in lists", R"(printf '[%.0s' {1..1000} >open; printf ']%.0s' {1..1000} >close
        head -c 1590 /dev/zero | sed "s/\x0/$(cat open close),/g"; printf 0)"},
    {"objects", R"(head -c 790000 /dev/zero | sed 's/\x0/{"":0},/g'; printf 0)"},
    {"blanks", R"(head -c 1G /dev/zero | tr '\0' ' ')"},
    {"200,000 files",
     R"(seq 199999 | sed 's/.*/{"actions":["add"],"path":"f&","position":0,"length":1},/'; printf 0)"},
    {"half a million folders", R"(deep=$(printf '/a%.0s' {1..124})
        seq 3999 | sed "s#.*#{\"actions\":[\"adddirectory\"],\"path\":\"&$deep\"},#"; printf 0)"},
    {"a path of 32,000 names", R"(deep=$(printf 'a/%.0s' {1..32000})
        printf '{"actions":["delete"],"path":"%s"}' "$deep")"},
    {"paths through a long link", R"(target=$(printf 'a/../%.0s' {1..800})
        printf '{"actions":["adddirectory"],"path":"a"},'
        printf '{"actions":["create-symlink"],"path":"l","symlink":"%sa"},' "$target"
        seq 199990 | sed 's/.*/{"actions":["delete"],"path":"l\/x"},/'; printf 0)"},
    {"one slice many times",
     R"(seq 199999 | sed 's/.*/{"actions":["add"],"path":"f&","position":0,"length":100000},/'
        printf 0)",
     "head -c 100000 /dev/zero"},
    {"one old file many times", R"(seq 199999 |
        sed 's/.*/{"actions":["patch"],"path":"program","position":0,"length":32,"hash":""},/'; printf 0)",
     "printf BSDIFN40; head -c 24 /dev/zero"},
    {"4 GiB of zeros", "printf 0", "head -c 4G /dev/zero"},
    {"64 MiB of zeros as a delta",
     R"(printf '{"actions":["patch"],"path":"program","position":0,"length":67108864}')",
     R"(size='\xC8\xFF\xFF\x03\0\0\0\0'; printf "BSDIFN40\x18\0\0\0\0\0\0\0$size$size$size"
        head -c 67108824 /dev/zero)"},
};

// In the folder where it runs: the old bundle and the patch file.
std::string making(const HostilePatch &patch)
{
    return std::string("mkdir -p old.app; head -c 16M /dev/zero >old.app/program\n")
        + "{ printf '{\"commands\":['; " + patch.commands + "; printf ']}'; } | xz -1 >manifest\n{ "
        + patch.payload
        + "; } | xz -1 >payload\n{ printf '%-32s' $(stat -c %s manifest); cat manifest payload; } >patch";
}

// A bundle that is made to take much when its seal is verified. What the shell prints becomes the list of
// its files.
struct HostileSeal {
    const char *what;
    const char *files;
};

constexpr HostileSeal Seals[] = {
    {"a list of names that meet in a table",
     R"(two={az,bY}; eval "names=($two$two$two$two$two$two$two$two$two$two$two$two$two$two$two$two ) "
        printf "<key>%s</key><data>$digest</data>" "${names[@]}")"},
    {"a list of references", R"(printf '<key>'; printf '&lt;%.0s' {1..500000}
        printf "</key><data>$digest</data>")"},
    {"a thousand sealed bundles", R"({ begin; end; } >list; sign list >signature
        for i in {1..1000}; do mkdir -p hostile.app/$i/_CodeSignature
            cp list hostile.app/$i/_CodeSignature/CodeResources
            cp signature hostile.app/$i/_CodeSignature/CodeSignature
            for file in list:CodeResources signature:CodeSignature; do
                printf "<key>$i/_CodeSignature/${file#*:}</key><data>$(digestOf ${file%:*})</data>"
            done; done)"},
};

// In the folder where it runs: `hostile.app`, sealed by a key that is made on the spot.
std::string making(const HostileSeal &seal)
{
    return std::string(R"(set -e; digestOf() { openssl sha256 -binary "$1" | base64; }
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-384 -nodes \
            -keyout key -out crt -subj /CN=a 2>&1
        sign() { openssl cms -sign -binary -outform DER -md sha256 -signer crt -inkey key -in "$1"; }
        begin() { printf '<?xml version="1.0"?><plist><dict>'
            printf '<key>version</key><integer>1</integer><key>files</key><dict>'; }
        end() { printf '</dict><key>links</key><dict/></dict></plist>'; }
        mkdir -p hostile.app/_CodeSignature; digest=$(digestOf crt)
        { begin; )")
        + seal.files + R"(; end; } >hostile.app/_CodeSignature/CodeResources
        sign hostile.app/_CodeSignature/CodeResources >hostile.app/_CodeSignature/CodeSignature)";
}

Row judging(const HostileSeal &seal, const fs::path &data)
{
    const fs::path folder = data / "hostile" / seal.what;
    const auto work = [=](const auto &timed) {
        const std::string inFolder = "cd " + shellWord(folder) + "; ";
        if (!fs::exists(folder / "hostile.app/_CodeSignature/CodeSignature")) {
            fs::create_directories(folder);
            if (!shell(inFolder + making(seal)))
                return false;
        }
        return command({"bash", "-c", inFolder + shellWord(ZEL_TOOL) + " verify hostile.app; [ $? -le 1 ]"})(
            timed);
    };
    return {.unit = "hostile",
            .data = seal.what,
            .work = work,
            .slow = true,
            .secondsGoal = 5,
            .memoryGoal = 512};
}

Row applying(const HostilePatch &patch, const fs::path &data)
{
    const fs::path folder = data / "hostile" / patch.what;
    const std::string inFolder = "cd " + shellWord(folder) + "; ";
    const std::string apply = shellWord(ZEL_TOOL) + " apply-patch old.app new.app patch";
    const auto work = [=](const auto &timed) {
        if (!fs::exists(folder / "patch")) {
            fs::create_directories(folder);
            if (!shell(inFolder + making(patch)))
                return false;
        }
        // Refused or not: what counts is what it takes.
        const bool done = command({"bash", "-c", inFolder + apply + "; [ $? -le 1 ]"})(timed);
        return shell(inFolder + "rm -rf new.app") && done;
    };
    return {.unit = "hostile",
            .data = patch.what,
            .work = work,
            .slow = true,
            .secondsGoal = 5,
            .memoryGoal = 512};
}

} // namespace

void addHostileRows(std::vector<Row> &rows, const fs::path &data)
{
    for (const HostilePatch &patch : Patches)
        rows.push_back(applying(patch, data));
    for (const HostileSeal &seal : Seals)
        rows.push_back(judging(seal, data));
}

} // namespace bench
