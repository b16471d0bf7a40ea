#include "rows.h"

#include "check/UpdateDecision.h"
#include "install/MD5FromData.h"
#include "seal/SealSignature.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <httplib.h>
#include <memory>
#include <openssl/evp.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {
namespace {

namespace fs = std::filesystem;

// A server in a process of its own that answers each check with no update.
class CheckServer
{
public:
    CheckServer()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return;
        m_process = ::fork();
        if (m_process == 0)
            serve(ends[1]);
        ::close(ends[1]);
        if (::read(ends[0], &m_port, sizeof m_port) != sizeof m_port)
            m_port = 0;
        ::close(ends[0]);
    }

    CheckServer(const CheckServer &) = delete;
    CheckServer &operator=(const CheckServer &) = delete;

    ~CheckServer()
    {
        if (m_process > 0 && ::kill(m_process, SIGTERM) == 0)
            ::waitpid(m_process, nullptr, 0);
    }

    std::string address() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/check"; }

private:
    [[noreturn]] static void serve(int port)
    {
        httplib::Server server;
        server.set_tcp_nodelay(true);
        server.Post("/check", [](const httplib::Request &, httplib::Response &reply) {
            reply.set_content("[]", "application/json");
        });
        const int bound = server.bind_to_any_port("127.0.0.1");
        const bool told = ::write(port, &bound, sizeof bound) == sizeof bound;
        ::_exit(told && server.listen_after_bind() ? 0 : 1);
    }

    pid_t m_process = -1;
    int m_port = 0;
};

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
    static const CheckServer server;
    const std::string body =
        R"({"arch":"x86","build":100,"model":"model","os":{"major":6,"minor":1,"patch":1}})";
    rows.push_back({.unit = "check",
                    .data = "one request",
                    .work = command({ZEL_TOOL, "check", "--url", server.address(), "--build", "100"}),
                    .peers = {{.name = "curl -d",
                               .work = command({"curl", "-s", "-H", "Content-Type: application/json", "-d",
                                                body, server.address()}),
                               .timeGoal = 1.2}}});
    rows.push_back(
        {.unit = "background check",
         .data = "one request",
         .work = command({ZEL_BACKGROUND_CHECK, server.address()}),
         .peers = {
             {.name = "a bare Qt Core program", .work = command({ZEL_BARE_PROGRAM}), .aboveGoal = 30}}});
}

constexpr int Records = 100;
constexpr int Decisions = 100; // of one takes too little to be measured

QJsonObject recordOf(int build)
{
    QJsonObject record{{"build", build},           {"file", "Example.zip"},
                       {"hash", QString(32, 'a')}, {"sha256", QString(64, 'a')},
                       {"size", 1000000},          {"version", "1.0"}};
    QJsonArray patches;
    for (int from = std::max(build - 10, 1); from < build; ++from) {
        QJsonObject patch = record;
        patch["build"] = from;
        patch.remove("version");
        patches.append(patch);
    }
    record["patches"] = patches;
    return record;
}

// Signed where there is a signer.
QByteArray feedOf(const QList<zel::Signer> &signers)
{
    QJsonArray feed;
    QJsonArray builds;
    const auto now = qint64(std::time(nullptr));
    for (int build = 1; build <= Records; ++build)
        builds.append(build);
    for (int build = 1; build <= Records; ++build) {
        QJsonObject record = recordOf(build);
        QByteArray message;
        if (!signers.isEmpty()) {
            record["identifier"] = "org.example";
            record["builds"] = builds;
            record["issued"] = now;
            record["expires"] = now + 3600;
            if (zel::signWith(signers, QJsonDocument(record).toJson(QJsonDocument::Compact),
                              zel::SignatureKind::Attached, message))
                ::abort();
            record["signed"] = QString::fromLatin1(message.toBase64());
        }
        feed.append(record);
    }
    return QJsonDocument(feed).toJson(QJsonDocument::Compact);
}

// The installed build is older than all, or newer.
Work decide(const fs::path &data, bool isSigned, int installed)
{
    return [=](const auto &timed) {
        QList<zel::Signer> signers;
        std::optional<zel::RecordPolicy> policy;
        if (isSigned) {
            const fs::path key = data / "check.key";
            const fs::path certificate = data / "check.crt";
            zel::Signer signer;
            if (!shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj "
                       "/CN=a "
                       "-keyout "
                       + shellWord(key) + " -out " + shellWord(certificate) + " 2>&1")
                || signer.load(QString::fromStdString(key), QString::fromStdString(certificate)))
                return false;
            signers = {signer};
            QByteArray message;
            if (zel::signWith(signers, "{}", zel::SignatureKind::Attached, message))
                return false;
            policy =
                zel::RecordPolicy{.signers = QStringList{zel::namedSigners(message).value(0).fingerprint},
                                  .identifier = "org.example",
                                  .now = qint64(std::time(nullptr))};
        }
        const QByteArray feed = feedOf(signers);
        const zel::MachineFacts facts{"x86", {6, 1, 0}, {}};
        const auto expected = installed < Records ? ZELStatusUpdateAvailable : ZELStatusNoUpdates;
        bool done = true;
        timed([&] {
            for (int i = 0; i < Decisions; ++i)
                done =
                    zel::decideUpdate(feed, {.build = installed}, installed, facts, policy).status == expected
                    && done;
        });
        return done;
    };
}

void addDecisions(std::vector<Row> &rows, const fs::path &data)
{
    for (const auto &[what, installed] : {std::pair("all newer", 0), std::pair("none newer", Records)})
        rows.push_back({.unit = "check of 100 signed records",
                        .data = std::string(what) + ", 100 times",
                        .work = decide(data, true, installed),
                        .peers = {{.name = "the same unsigned", .work = decide(data, false, installed)}}});
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
