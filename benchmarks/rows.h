// The rows of the table, unit by unit: one function here and one file rows_*.cpp for each unit.
#pragma once

#include "Measure.h"

#include <filesystem>

namespace bench {

/// `data`: the folder that fetch-data filled.
void addDeltaRows(std::vector<Row> &rows, const std::filesystem::path &data);

} // namespace bench
