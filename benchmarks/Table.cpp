#include "Table.h"

namespace bench {
namespace {

void printMeasurement(const char *name, const std::optional<Measurement> &it)
{
    std::printf("  %-34s", name);
    if (!it)
        std::printf(" failed");
    else if (it->bytes > 0)
        std::printf(" %8.3f s %6.0f MB %11.0f bytes", it->seconds, it->megabytes, it->bytes);
    else
        std::printf(" %8.3f s %6.0f MB", it->seconds, it->megabytes);
}

void printGoal(const char *what, double value, double goal)
{
    if (goal > 0)
        std::printf("  %s %.3f (goal %.3f)%s", what, value, goal, value <= goal ? "" : " MISSED");
}

void printPeer(const PeerTool &peer, const std::optional<Measurement> &ours,
               const std::optional<Measurement> &theirs)
{
    printMeasurement(peer.name.c_str(), theirs);
    if (ours && theirs) {
        if (peer.timeGoal <= 0)
            std::printf("  time %.3f", ours->seconds / theirs->seconds);
        printGoal("time", ours->seconds / theirs->seconds, peer.timeGoal);
        if (peer.sizeGoal <= 0 && ours->bytes > 0 && theirs->bytes > 0)
            std::printf("  size %.4f", ours->bytes / theirs->bytes);
        if (theirs->bytes > 0)
            printGoal("size", ours->bytes / theirs->bytes, peer.sizeGoal);
        printGoal("MB above", ours->megabytes - theirs->megabytes, peer.aboveGoal);
    }
    std::printf("\n");
}

void print(const Row &row, const Result &result)
{
    std::printf("%s, %s\n", row.unit.c_str(), row.data.c_str());
    printMeasurement("ours", result.ours);
    if (result.ours) {
        printGoal("seconds", result.ours->seconds, row.secondsGoal);
        printGoal("MB", result.ours->megabytes, row.memoryGoal);
    }
    std::printf("\n");
    for (size_t i = 0; i < row.peers.size(); ++i)
        printPeer(row.peers[i], result.ours, result.peers[i]);
    std::fflush(stdout);
}

void writeMeasurement(std::FILE *json, const std::optional<Measurement> &it)
{
    if (it)
        std::fprintf(json, ", \"seconds\": %.5f, \"megabytes\": %.1f, \"bytes\": %.0f", it->seconds,
                     it->megabytes, it->bytes);
}

} // namespace

Table::Table(const char *jsonPath)
    : m_json(std::fopen(jsonPath, "we"), &std::fclose)
{
    if (m_json)
        std::fputc('[', m_json.get());
}

bool Table::add(const Row &row, const Result &result)
{
    print(row, result);
    write(row, result);
    bool ok = result.ours.has_value();
    for (const auto &peer : result.peers)
        ok = ok && peer;
    return ok;
}

bool Table::close()
{
    std::fputs("\n]\n", m_json.get());
    return std::fclose(m_json.release()) == 0;
}

void Table::write(const Row &row, const Result &result)
{
    std::FILE *const json = m_json.get();
    std::fprintf(
        json, "%s{\"unit\": \"%s\", \"data\": \"%s\", \"secondsGoal\": %.2f, \"megabytesGoal\": %.1f",
        m_first ? "\n " : ",\n ", row.unit.c_str(), row.data.c_str(), row.secondsGoal, row.memoryGoal);
    m_first = false;
    writeMeasurement(json, result.ours);
    std::fputs(", \"peers\": [", json);
    for (size_t i = 0; i < row.peers.size(); ++i) {
        const PeerTool &peer = row.peers[i];
        std::fprintf(json, "%s{\"name\": \"%s\", \"timeGoal\": %.3f, \"sizeGoal\": %.3f, \"aboveGoal\": %.1f",
                     i == 0 ? "" : ", ", peer.name.c_str(), peer.timeGoal, peer.sizeGoal, peer.aboveGoal);
        writeMeasurement(json, result.peers[i]);
        std::fputc('}', json);
    }
    std::fputs("]}", json);
}

} // namespace bench
