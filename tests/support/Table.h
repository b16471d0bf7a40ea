// The rows of a data-driven test, without a line for each of its columns.
#pragma once

#include <QtTest>

#include <tuple>

/// A `_data` function makes one and calls it with each row's name and values; the test takes the values of
/// its row apart:
///
///     const Table<QString, int> row;
///     row("seven", "a text", 7);
///
///     const auto [text, number] = Table<QString, int>::current();
template <typename... Columns> class Table
{
    using Values = std::tuple<Columns...>;

public:
    Table() { QTest::addColumn<Values>("values"); }

    void operator()(const QByteArray &name, const Columns &...values) const
    {
        QTest::newRow(name.constData()) << Values(values...);
    }

    static Values current()
    {
        QFETCH(Values, values);
        return values;
    }
};
