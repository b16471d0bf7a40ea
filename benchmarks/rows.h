// The rows of the table, unit by unit: one function here and one file rows_*.cpp for each group of units.
#pragma once

#include "Measure.h"

namespace bench {

/// `data`: the folder that fetch-data filled; what the rows make goes there too.
void addDeltaRows(std::vector<Row> &rows, const std::filesystem::path &data);
void addPatchRows(std::vector<Row> &rows, const std::filesystem::path &data);
void addHostileRows(std::vector<Row> &rows, const std::filesystem::path &data);
void addDownloadRows(std::vector<Row> &rows, const std::filesystem::path &data);
void addSystemRows(std::vector<Row> &rows, const std::filesystem::path &data);

} // namespace bench
