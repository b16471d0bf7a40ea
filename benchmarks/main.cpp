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
    bench::Table table(argv[2]);
    if (!table.isOpen() || runs < 1) {
        std::fprintf(stderr, "bench: cannot measure %d runs into %s\n", runs, argv[2]);
        return 1;
    }
    std::vector<bench::Row> rows;
    bench::addDeltaRows(rows, argv[1]);
    bench::addPatchRows(rows, argv[1]);
    bench::addSystemRows(rows, argv[1]);
    std::printf("Medians of %d runs (3 of long ones), peers in turn.\n", runs);
    bool ok = true;
    for (const bench::Row &row : rows) {
        if ((row.unit + ' ' + row.data).find(wanted) != std::string::npos)
            ok = table.add(row, bench::measure(row, runs)) && ok;
    }
    return table.close() && ok ? 0 : 1;
}
