// Measures this project against its peers: bench DATA-FOLDER JSON-FILE [RUNS [PART-OF-A-ROW'S-NAME]]
#include "rows.h"
#include "Table.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char *argv[])
{
    if (argc < 3 || argc > 5) {
        std::fprintf(stderr, "usage: bench DATA-FOLDER JSON-FILE [RUNS [PART-OF-A-ROW'S-NAME]]\n");
        return 2;
    }
    const int runs = argc > 3 ? std::atoi(argv[3]) : 5;
    const std::string wanted = argc > 4 ? argv[4] : "";
    if (runs < 1) {
        std::fprintf(stderr, "bench: '%s' is no number of runs\n", argv[3]);
        return 2;
    }
    std::vector<bench::Row> rows;
    bench::addDeltaRows(rows, argv[1]);
    bench::addPatchRows(rows, argv[1]);
    bench::addSystemRows(rows, argv[1]);
    bench::addDownloadRows(rows, argv[1]);
    bench::addHostileRows(rows, argv[1]);
    std::erase_if(rows, [&wanted](const bench::Row &row) {
        return (row.unit + ' ' + row.data).find(wanted) == std::string::npos;
    });
    if (rows.empty()) {
        std::fprintf(stderr, "bench: no row has '%s' in its name\n", wanted.c_str());
        return 2;
    }
    bench::Table table(argv[2]);
    if (!table.isOpen()) {
        std::fprintf(stderr, "bench: cannot write %s\n", argv[2]);
        return 1;
    }
    std::printf("Medians of %d runs (3 of long ones), peers in turn.\n", runs);
    bool ok = true;
    for (const bench::Row &row : rows)
        ok = table.add(row, bench::measure(row, runs)) && ok;
    return table.close() && ok ? 0 : 1;
}
