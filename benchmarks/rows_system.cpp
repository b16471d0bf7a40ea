#include "rows.h"

#include "check/UpdateDecision.h"
#include "install/MD5FromData.h"
#include "publish/SignedFeed.h"
#include "ServerProcess.h"

#include <algorithm>
#include <memory>
#include <openssl/evp.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr qsizetype BufferSize = (qsizetype(256) << 20) + 1; // not whole chunks, which have no digest

Work digest(void (*sum)(const QByteArray &))
{
    return [sum](const auto &timed) {
        const QByteArray buffer(BufferSize, 'x');
        timed([&] { sum(buffer); });
        return true;
    };
}

void sumOurs(const QByteArray &buffer)
{
    if (MD5FromData(buffer).isEmpty())
        ::abort();
}

// What `openssl speed -evp md5` does, in its pieces of 16 KiB.
void sumTheirs(const QByteArray &buffer)
{
    constexpr qsizetype piece = 16384;
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr);
    for (qsizetype at = 0; at < buffer.size(); at += piece)
        EVP_DigestUpdate(context.get(), buffer.data() + at, size_t(std::min(piece, buffer.size() - at)));
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context.get(), digest, nullptr);
}

void addUnpacking(std::vector<Row> &rows, const fs::path &data)
{
    const fs::path archive = data / "flipper.zip";
    const auto unpack = [=](const char *folder, const std::string &commands) {
        return [=](const auto &timed) {
            const fs::path place = data / folder;
            if (!fs::exists(archive)
                && !shell("cd " + shellWord(data) + "; cmake -E tar cf " + shellWord(archive)
                          + " --format=zip flipper.new"))
                return false;
            fs::remove_all(place);
            fs::create_directory(place);
            return command({"bash", "-o", "pipefail", "-ec", "cd " + shellWord(place) + "; " + commands})(
                timed);
        };
    };
    rows.push_back(
        {.unit = "unpack",
         .data = "flipper.zip",
         .work =
             unpack("unpacked", "cat " + shellWord(archive) + " | " + shellWord(ZEL_UNPACK) + " -x -k - ."),
         .peers = {{.name = "unzip",
                    .work = unpack("unzipped", "unzip -q " + shellWord(archive)),
                    .timeGoal = 0.8}},
         .memoryGoal = 32});
}

void addChecks(std::vector<Row> &rows)
{
    // Each check is answered with no update.
    static const ServerProcess server([](httplib::Server &it) {
        it.Post("/check", [](const httplib::Request &, httplib::Response &reply) {
            reply.set_content("[]", "application/json");
        });
    });
    const std::string address = server.address("/check");
    const std::string body =
        R"({"arch":"x86","build":100,"model":"model","os":{"major":6,"minor":1,"patch":1}})";
    rows.push_back({.unit = "check",
                    .data = "one request",
                    .work = command({ZEL_TOOL, "check", "--url", address, "--build", "100"}),
                    .peers = {{.name = "curl -d",
                               .work = command({"curl", "-s", "-H", "Content-Type: application/json", "-d",
                                                body, address}),
                               .timeGoal = 1.2}}});
    rows.push_back(
        {.unit = "background check",
         .data = "one request",
         .work = command({ZEL_BACKGROUND_CHECK, address}),
         .peers = {
             {.name = "a bare Qt Core program", .work = command({ZEL_BARE_PROGRAM}), .aboveGoal = 30}}});
}

constexpr int Records = 100;
constexpr int Decisions = 100; // of one takes too little to be measured

QJsonObject recordOf(int build)
{
    QJsonObject file{{"build", build},
                     {"file", "Example.zip"},
                     {"hash", QString(32, 'a')},
                     {"sha256", QString(64, 'a')},
                     {"size", 1000000}};
    QJsonArray patches;
    for (int from = std::max(build - 10, 1); from < build; ++from) {
        QJsonObject patch = file;
        patch["build"] = from;
        patches.append(patch);
    }
    file["version"] = "1.0";
    file["identifier"] = "org.example";
    file["patches"] = patches;
    return file;
}

bool makeSigner(const fs::path &data, zel::Signer &signer)
{
    const fs::path key = data / "check.key";
    const fs::path certificate = data / "check.crt";
    return shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj /CN=a"
                 " -keyout "
                 + shellWord(key) + " -out " + shellWord(certificate) + " 2>&1")
        && !signer.load(QString::fromStdString(key), QString::fromStdString(certificate));
}

// By an installation whose build is older than all of the feed, or not.
Work decide(const fs::path &data, bool isSigned, int installed)
{
    return [=](const auto &timed) {
        zel::FeedSigning signing{.signers = {zel::Signer()}};
        std::optional<zel::RecordPolicy> policy;
        QJsonArray feed;
        for (int build = 1; build <= Records; ++build)
            feed.append(recordOf(build));
        if (isSigned) {
            if (!makeSigner(data, signing.signers[0]) || zel::signFeed(feed, signing))
                return false;
            policy = zel::RecordPolicy{.signers = zel::fingerprintsOf(signing.signers),
                                       .identifier = "org.example",
                                       .now = feed.at(0)["issued"].toInteger()};
        }
        const QByteArray body = QJsonDocument(feed).toJson(QJsonDocument::Compact);
        const zel::MachineFacts facts{"x86", {6, 1, 0}, {}};
        const auto expected = installed < Records ? ZELStatusUpdateAvailable : ZELStatusNoUpdates;
        int done = 0;
        timed([&] {
            for (int i = 0; i < Decisions; ++i)
                done += zel::decideUpdate(body, {.build = installed}, installed, facts, policy).status
                    == expected;
        });
        return done == Decisions;
    };
}

void addDecisions(std::vector<Row> &rows, const fs::path &data)
{
    for (const auto &[what, installed] : {std::pair("all newer", 0), std::pair("none newer", Records)})
        rows.push_back(
            {.unit = "check of 100 signed records",
             .data = std::string(what) + ", 100 times",
             .work = decide(data, true, installed),
             .peers = {
                 {.name = "the same unsigned", .work = decide(data, false, installed), .timeGoal = 2}}});
}

} // namespace

void addSystemRows(std::vector<Row> &rows, const fs::path &data)
{
    rows.push_back(
        {.unit = "MD5",
         .data = "256 MiB",
         .work = digest(sumOurs),
         .peers = {
             {.name = "OpenSSL in pieces of 16 KiB", .work = digest(sumTheirs), .timeGoal = 1 / 0.95}}});
    addUnpacking(rows, data);
    addChecks(rows);
    addDecisions(rows, data);
}

} // namespace bench
