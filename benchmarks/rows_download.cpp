#include "install/PartialDownload.h"
#include "net/URLSession.h"
#include "rows.h"
#include "ServerProcess.h"

#include <QFileInfo>

#include <chrono>
#include <fcntl.h>
#include <future>
#include <thread>
#include <unistd.h>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr size_t Size = 100'000'000;
constexpr size_t BreaksAt = Size / 10 * 9;
constexpr size_t BytesPerSecond = 25'000'000; // a good line; loopback would take no time at all
constexpr size_t PieceSize = 256 * 1024;

// The bytes of the latest answer become the length of the file `count`, before they are sent.
void serveFile(httplib::Server &server, const fs::path &count)
{
    const int counter = ::open(count.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const auto handler = [counter](bool breaks) {
        return [=](const httplib::Request &, httplib::Response &response) {
            const auto start = std::chrono::steady_clock::now();
            const auto sent = std::make_shared<size_t>(0);
            response.set_header("ETag", "\"1\"");
            response.set_content_provider(
                Size, "application/zip", [=](size_t offset, size_t length, httplib::DataSink &sink) {
                    if (breaks && offset >= BreaksAt)
                        return false;
                    const size_t most = breaks ? BreaksAt - offset : length;
                    const std::string piece(std::min(most, PieceSize), 'x');
                    *sent += piece.size();
                    const std::chrono::duration<double> due(double(*sent) / BytesPerSecond);
                    if (!breaks)
                        std::this_thread::sleep_until(start + due);
                    return ::ftruncate(counter, off_t(*sent)) == 0 && sink.write(piece.data(), piece.size());
                });
        };
    };
    server.Get("/file", handler(false));
    server.Get("/broken", handler(true));
}

// Whether all of the file is there afterwards.
bool load(const fs::path &folder, const std::string &address)
{
    const QString root = QString::fromStdString(folder);
    const auto part = zel::PartialDownload::take(root, QString(64, u'a'), Size);
    std::promise<bool> ended;
    zel::downloadTask(
        {.url = QUrl(QString::fromStdString(address)), .size = Size}, root,
        [&](const QString &location, const QUrl &, const ZELError &error) {
            ended.set_value(!error && QFileInfo(location).size() == Size);
        },
        part)
        ->resume();
    return ended.get_future().get();
}

} // namespace

void addDownloadRows(std::vector<Row> &rows, const fs::path &data)
{
    const fs::path folder = data / "downloads", count = data / "download.count",
                   file = data / "download.file";
    static const ServerProcess server([&](httplib::Server &it) { serveFile(it, count); });
    const std::string address = server.address("/file");
    const auto loaded = [=](bool isContinued) {
        return [=](const auto &timed) {
            fs::remove_all(folder);
            if (isContinued && load(folder, server.address("/broken")))
                return false;
            bool ok = false;
            timed([&] { ok = load(folder, address); });
            return ok;
        };
    };
    const auto continuedByCurl = [=](const auto &timed) {
        return shell("head -c " + std::to_string(BreaksAt) + " /dev/zero >" + shellWord(file))
            && command({"curl", "-s", "-C", "-", "-o", file, address})(timed);
    };
    rows.push_back(
        {.unit = "download",
         .data = "100 MB, broken at 90 %",
         .work = loaded(true),
         .output = count,
         .peers = {{.name = "the whole",
                    .work = loaded(false),
                    .output = count,
                    .timeGoal = 0.15,
                    .sizeGoal = 0.105},
                   {.name = "curl -C -", .work = continuedByCurl, .output = count, .timeGoal = 1.2}}});
}

} // namespace bench
