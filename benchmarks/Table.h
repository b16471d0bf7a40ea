// What was measured, as lines on the terminal and as a JSON file.
#pragma once

#include "Measure.h"

#include <cstdio>
#include <memory>

namespace bench {

class Table
{
public:
    /// Begins the file at `jsonPath`.
    explicit Table(const char *jsonPath);

    bool isOpen() const { return m_json != nullptr; }

    /// Prints and writes a row's outcome; false when a run of it failed.
    bool add(const Row &row, const Result &result);

    /// Ends the file; false when it could not be written.
    bool close();

private:
    void write(const Row &row, const Result &result);

    std::unique_ptr<std::FILE, int (*)(std::FILE *)> m_json;
    bool m_first = true;
};

} // namespace bench
