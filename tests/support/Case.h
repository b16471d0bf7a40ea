// Loops over cases that tell which of them has failed.
#pragma once

#include <QString>
#include <QtTest>

/// Stands in a loop's body and names the case when a check below it fails.
class Case
{
public:
    explicit Case(const QString &name)
        : m_name(name)
    {
    }
    ~Case()
    {
        if (QTest::currentTestFailed())
            qInfo("This was the case \"%s\".", qPrintable(m_name));
    }
    Case(const Case &) = delete;
    Case &operator=(const Case &) = delete;

private:
    const QString m_name;
};
