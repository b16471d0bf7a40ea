// A running transfer, such as the download of an update, as a host sees it.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QtGlobal>

#include <functional>

/// One transfer. All functions are safe from any thread, from the observer and from the transfer's
/// completion.
class ZEL_EXPORT ZELURLSessionTask
{
public:
    virtual ~ZELURLSessionTask() = default;
    ZELURLSessionTask(const ZELURLSessionTask &) = delete;
    ZELURLSessionTask &operator=(const ZELURLSessionTask &) = delete;

    /// Starts the request; calls after the first do nothing.
    virtual void resume() = 0;

    /// Ends the task, one that was never resumed too, as cancelled: when this returns before the completion
    /// was entered, the completion is told so, or, of an update, never called. Does nothing after that.
    virtual void cancel() = 0;

    /// Bytes of the body that have come in so far, those of an earlier attempt that it goes on from included.
    /// Falls only where the body has to come again from the beginning.
    virtual qint64 countOfBytesReceived() const = 0;

    /// Bytes of the whole body as the server announced them; -1 as long as that is not known.
    virtual qint64 countOfBytesExpectedToReceive() const = 0;

    /// Calls `observer` once before this returns, then on the session's thread after each change of
    /// `countOfBytesReceived`, never after the completion was entered. There is one observer; an empty
    /// function removes it. One that another thread removes may still be finishing a call when this returns.
    virtual void observeCountOfBytesReceived(std::function<void()> observer) = 0;

protected:
    ZELURLSessionTask() = default;
};
