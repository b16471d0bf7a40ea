// Requests over HTTP and HTTPS. Every task is a session of its own: its own connections, nothing kept
// afterwards (no cache, no cookies), and a thread of its own that is the session's queue.
#pragma once

#include "BodyFile.h"
#include "common/ZELError.h"
#include "URLRequest.h"
#include "ZELURLSessionTask.h"

#include <QString>

#include <functional>
#include <memory>

namespace zel {

/// A request that `dataTask` or `downloadTask` has made, idle until `resume`. Once started it needs no owner:
/// it lives until its completion has returned, and the completion, with all that it holds, is destroyed on
/// the session's thread.
using URLSessionTask = ZELURLSessionTask;

/// Called exactly once, on the session's thread, which it may block for as long as it likes: the network is
/// done with by then. `body` is null when there is an error and never null when there is none, an empty body
/// included. `responseUrl` is the address that answered, after redirections.
using DataCompletion =
    std::function<void(const QByteArray &body, const QUrl &responseUrl, const ZELError &error)>;

/// As `DataCompletion`. `location` is the downloaded file, mode 0600, null when there is an error; it is
/// removed when the completion returns unless it was moved away.
using DownloadCompletion =
    std::function<void(const QString &location, const QUrl &responseUrl, const ZELError &error)>;

/// A request whose body is handed over in memory, at most `request.bodyLimit` bytes of it.
///
/// What counts as a transport error, here and in `downloadTask`: an address that is not http or https, no
/// connection, a certificate that does not verify, an answer that breaks HTTP or ends early, a redirection to
/// another kind of address, from https down to http or one too many, more than 256 KiB of header and trailer,
/// content that is coded twice, a broken limit of the request, and a cancelled task. An HTTP status is none:
/// the body of a 404 is a body. A POST is sent once, however its connection ends.
///
/// Needs no running event loop. When the application object is destroyed, or the process exits without that,
/// running tasks are cancelled and their completions waited for: a completion must never wait for the main
/// thread. Where no thread is to be had that is a transport error, too, whose completion comes on the main
/// queue if the task was resumed there, else before `resume` returns. Proxies are used as `proxyFor` says, of
/// which one that asks for a password, refuses a connection or has no port is a transport error, and the
/// machine's certificates or those of the file that the variable SSL_CERT_FILE names.
std::shared_ptr<URLSessionTask> dataTask(const URLRequest &request, DataCompletion completion);

/// A request whose body goes to a new file in `temporaryFolder` as it arrives, with any content coding left
/// as it is; takes less than a MiB of memory whatever the size. The folder is made with mode 0700 when it is
/// missing. A file that cannot be made or written is a transport error, and so is a body that would take the
/// last of a disk: the announced size is judged before anything is loaded, and the free space while it is
/// written.
///
/// A download that breaks off is tried again after each of `request.pauses`: without a name's address or a
/// connection, after silence (but not after one that nothing has come since), an answer that ends early, or a
/// status of 429, 500, 502, 503 or 504, the server's or the proxy's. The last attempt's body is a body, with
/// such a status or too short. Each attempt asks for what is missing of the file, where the server has told
/// how to (a strong entity tag, or a time of modification that is one), and for all of it where it cannot
/// give that. `file`, where there is one, is what it goes to and may have a beginning already; a body that
/// cannot be that file, by its status or by the length in `request.size`, comes in another one, and so does
/// one for which that beginning is not to be given up yet (`BodyInFile`). Counts are of the file, what there
/// was of it included.
std::shared_ptr<URLSessionTask> downloadTask(const URLRequest &request, const QString &temporaryFolder,
                                             DownloadCompletion completion,
                                             std::shared_ptr<BodyFile> file = {});

} // namespace zel
