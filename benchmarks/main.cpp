// Measures this project against its peers: bench DATA-FOLDER JSON-FILE [RUNS [PART-OF-A-ROW'S-NAME]]
#include "rows.h"

#include <cstdio>
#include <cstdlib>

namespace {

void printSide(const std::optional<bench::Measurement> &side)
{
    if (side)
        std::printf(" %9.2f s %8.0f MB", side->seconds, side->megabytes);
    else
        std::printf(" %9s   %8s   ", "-", "-");
}

void print(const bench::Row &row, const bench::Result &result)
{
    std::printf("%-22s %-11s", row.unit.c_str(), row.data.c_str());
    printSide(result.ours);
    printSide(result.peer);
    if (result.ours && result.peer)
        std::printf(" %6.2f", result.ours->seconds / result.peer->seconds);
    if (row.goal > 0)
        std::printf(" (goal %.2f)", row.goal);
    std::printf("  %s\n", row.peerName.c_str());
    std::fflush(stdout);
}

void writeSide(std::FILE *json, const char *name, const std::optional<bench::Measurement> &side)
{
    if (side)
        std::fprintf(json, ", \"%sSeconds\": %.4f, \"%sMegabytes\": %.1f", name, side->seconds, name,
                     side->megabytes);
}

void write(std::FILE *json, const bench::Row &row, const bench::Result &result, bool first)
{
    std::fprintf(json, "%s{\"unit\": \"%s\", \"data\": \"%s\", \"peer\": \"%s\", \"goal\": %.2f",
                 first ? "\n " : ",\n ", row.unit.c_str(), row.data.c_str(), row.peerName.c_str(), row.goal);
    writeSide(json, "ours", result.ours);
    writeSide(json, "peer", result.peer);
    std::fputs("}", json);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3 || argc > 5) {
        std::fprintf(stderr, "usage: bench DATA-FOLDER JSON-FILE [RUNS [PART-OF-A-ROW'S-NAME]]\n");
        return 2;
    }
    const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
    const std::string wanted = argc > 4 ? argv[4] : "";
    std::vector<bench::Row> rows;
    bench::addDeltaRows(rows, argv[1]);
    std::FILE *const json = std::fopen(argv[2], "we");
    if (!json || runs < 1) {
        std::fprintf(stderr, "bench: cannot measure %d runs into %s\n", runs, argv[2]);
        return 1;
    }
    std::printf("Medians of %d runs, peers in turn.\n%-22s %-11s %11s %11s %11s %11s %6s\n", runs, "unit",
                "data", "ours", "memory", "peer", "memory", "ratio");
    std::fputc('[', json);
    bool first = true;
    bool ok = true;
    for (const bench::Row &row : rows) {
        if ((row.unit + ' ' + row.data).find(wanted) == std::string::npos)
            continue;
        const bench::Result result = bench::measure(row, runs);
        print(row, result);
        write(json, row, result, first);
        first = false;
        ok = ok && result.ours && (!row.peer || result.peer);
    }
    std::fputs("\n]\n", json);
    return std::fclose(json) == 0 && ok ? 0 : 1;
}
