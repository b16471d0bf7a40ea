// What a piece of code writes to standard output and standard error, which are shown again afterwards.
#pragma once

#include <cstdio>
#include <QByteArray>
#include <QTemporaryFile>
#include <QtTest>
#include <unistd.h>

/// Redirects one stream for as long as it lives.
class CapturedStream
{
public:
    explicit CapturedStream(std::FILE *stream)
        : m_stream(stream)
        , m_before((std::fflush(stream), ::dup(::fileno(stream))))
    {
        if (!m_file.open() || ::dup2(m_file.handle(), ::fileno(stream)) < 0)
            qFatal("cannot redirect a stream");
    }

    ~CapturedStream() { restore(); }
    CapturedStream(const CapturedStream &) = delete;
    CapturedStream &operator=(const CapturedStream &) = delete;

    /// All that was written, without the lines that the sanitizers add; the stream is as before from here on.
    QByteArray text()
    {
        restore();
        m_file.seek(0);
        QByteArray text;
        while (!m_file.atEnd()) {
            const QByteArray line = m_file.readLine();
            if (!line.startsWith("=="))
                text += line;
        }
        return text;
    }

private:
    void restore()
    {
        if (m_before < 0)
            return;
        std::fflush(m_stream);
        ::dup2(m_before, ::fileno(m_stream));
        ::close(m_before);
        m_before = -1;
    }

    QTemporaryFile m_file;
    std::FILE *m_stream;
    int m_before;
};
