// A page that is shown on a developer's or an office's machine could ask what only that machine reaches:
// routers, local servers, the metadata of a cloud. So each address is judged before it is asked, at every hop
// of a redirection, by what it says and by what its name resolves to. Lists of what is private were turned
// round where possible: of IPv6 only the one routed block is public, and a host name must look like one of
// the open network.
//
// Known limits: between the look-up here and the one of the connection a name may change its address, and the
// document itself is fetched by the engine, which looks its name up alone.
//
// Qt's network access fetches the parts, although it may take a connection that is dropped for a body's end,
// which is why downloads do without it (URLTransfer.cpp). Here what is cut short is half a picture, and
// nothing is built of it; and parts are asked for and answered on the main thread, dozens at a time, where
// each transfer of the library's own would take a thread.
#include "NotesReach.h"

#include "common/WireValues.h"

#include <QBuffer>
#include <QHostAddress>
#include <QHostInfo>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QPointer>
#include <QTimer>
#include <QWebEngineUrlRequestJob>

#include <algorithm>
#include <chrono>

namespace zel {

namespace {

using namespace std::chrono_literals;

constexpr qint64 RoomOfADocument = 64LL << 20;
constexpr int MostHops = 10;
constexpr auto PartDeadline = 2min;

// Keeps nothing: what a part sets is no other part's.
class NoCookies : public QNetworkCookieJar
{
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl &) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie> &, const QUrl &) override { return false; }
};

bool isProxied(const QUrl &url)
{
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(url));
    return !proxies.isEmpty() && proxies.constFirst().type() != QNetworkProxy::NoProxy;
}

// One part, from the engine's question to its answer. It belongs to the job, which the engine deletes when
// it wants the part no more.
class PartFetch : public QObject
{
public:
    PartFetch(QWebEngineUrlRequestJob &job, NotesParts &parts)
        : QObject(&job)
        , m_job(job)
        , m_parts(parts)
    {
        QTimer::singleShot(PartDeadline, this, [this] { fail(); });
    }
    ~PartFetch() override { drop(); }

    void start(const QUrl &url)
    {
        m_url = url;
        if (++m_hops > MostHops || !m_parts.reach().allows(url)) {
            fail();
            return;
        }
        if (m_parts.reach().isOwn(url) || isProxied(url))
            get();
        else
            QHostInfo::lookupHost(url.host(), this, [this](const QHostInfo &info) { resolved(info); });
    }

private:
    void resolved(const QHostInfo &info)
    {
        const QList<QHostAddress> addresses = info.addresses();
        const bool allPublic = std::all_of(addresses.begin(), addresses.end(), [](const QHostAddress &one) {
            return isPublicHost(one.toString());
        });
        if (allPublic && !addresses.isEmpty())
            get();
        else
            fail();
    }

    void get()
    {
        QNetworkRequest request(m_url);
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        request.setHeader(QNetworkRequest::UserAgentHeader, QLatin1String(UserAgent));
        request.setRawHeader("Accept", "*/*");
        request.setRawHeader("Accept-Language", userLanguages());
        m_reply = m_parts.network().get(request);
        connect(m_reply, &QNetworkReply::readyRead, this, [this] { receive(); });
        connect(m_reply, &QNetworkReply::finished, this, [this] { finish(); });
    }

    void receive()
    {
        const QByteArray bytes = m_reply->readAll();
        if (m_parts.take(bytes.size()))
            m_data += bytes;
        else
            fail();
    }

    void finish()
    {
        QNetworkReply &reply = *m_reply;
        const QUrl target = reply.attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
        const QByteArray type = reply.header(QNetworkRequest::ContentTypeHeader).toByteArray();
        const bool failed = reply.error() != QNetworkReply::NoError;
        drop();
        if (!failed && !target.isEmpty()) {
            m_data.clear();
            start(m_url.resolved(target));
        } else if (failed) {
            fail();
        } else {
            answer(type);
        }
    }

    void answer(const QByteArray &type)
    {
        auto *content = new QBuffer(&m_job);
        content->setData(m_data);
        deleteLater();
        m_job.reply(type.isEmpty() ? QByteArray("application/octet-stream") : type, content);
    }

    void fail()
    {
        drop();
        deleteLater();
        m_job.fail(QWebEngineUrlRequestJob::RequestDenied);
    }

    void drop()
    {
        if (!m_reply)
            return;
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
        m_reply = nullptr;
    }

    QWebEngineUrlRequestJob &m_job;
    NotesParts &m_parts;
    QUrl m_url;
    QByteArray m_data;
    QPointer<QNetworkReply> m_reply;
    int m_hops = 0;
};

bool isWithin(const QHostAddress &address, std::initializer_list<const char *> networks)
{
    return std::any_of(networks.begin(), networks.end(), [&](const char *network) {
        return address.isInSubnet(QHostAddress::parseSubnet(QLatin1String(network)));
    });
}

bool isPublicAddress(const QHostAddress &address)
{
    bool isIPv4 = false; // or IPv4 mapped into IPv6
    const QHostAddress mapped(address.toIPv4Address(&isIPv4));
    if (isIPv4)
        return !isWithin(mapped,
                         {"0.0.0.0/8", "10.0.0.0/8", "100.64.0.0/10", "127.0.0.0/8", "169.254.0.0/16",
                          "172.16.0.0/12", "192.0.0.0/24", "192.168.0.0/16", "198.18.0.0/15", "224.0.0.0/3"});
    // Only this block is routed; 6to4 and Teredo carry an IPv4 address inside.
    return isWithin(address, {"2000::/3"}) && !isWithin(address, {"2001::/32", "2002::/16"});
}

bool isLocalName(const QString &name)
{
    static const QStringList local{QStringLiteral("localhost"),   QStringLiteral("local"),
                                   QStringLiteral("internal"),    QStringLiteral("intranet"),
                                   QStringLiteral("lan"),         QStringLiteral("home"),
                                   QStringLiteral("corp"),        QStringLiteral("private"),
                                   QStringLiteral("localdomain"), QStringLiteral("arpa")};
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot < 0 || local.contains(name.mid(dot + 1));
}

QUrl origin(const QUrl &url)
{
    QUrl origin;
    origin.setScheme(url.scheme());
    origin.setHost(url.host());
    origin.setPort(url.port(url.scheme() == QLatin1String("https") ? 443 : 80));
    return origin;
}

} // namespace

bool isPublicHost(const QString &host)
{
    QString name = host.toLower();
    while (name.endsWith(u'.'))
        name.chop(1);
    const QHostAddress address(name);
    if (!address.isNull())
        return isPublicAddress(address);
    // A last label that begins with a digit is a number that no reader of addresses agreed on.
    const QString last = name.mid(name.lastIndexOf(u'.') + 1);
    return !last.isEmpty() && !last.front().isDigit() && !isLocalName(name);
}

void NotesReach::start(const QUrl &document)
{
    m_own = isWebAddress(document) && !isPublicHost(document.host()) ? origin(document) : QUrl();
}

void NotesReach::follow(const QUrl &url)
{
    if (!isOwn(url))
        m_own.clear();
}

bool NotesReach::allows(const QUrl &url) const
{
    return isWebAddress(url) && (isPublicHost(url.host()) || isOwn(url));
}

bool NotesReach::isOwn(const QUrl &url) const
{
    return !m_own.isEmpty() && origin(url) == m_own;
}

QUrl partUrl(const QUrl &address)
{
    return QUrl::fromEncoded(QByteArray(PartScheme) + ':' + address.toEncoded());
}

NotesParts::NotesParts(const NotesReach &reach)
    : m_reach(reach)
{
    m_network.setCookieJar(new NoCookies(&m_network));
}

void NotesParts::reset()
{
    m_room = RoomOfADocument;
}

bool NotesParts::take(qint64 bytes)
{
    m_room = std::max<qint64>(m_room - bytes, 0);
    return m_room > 0;
}

void NotesParts::requestStarted(QWebEngineUrlRequestJob *job)
{
    const QByteArray address = job->requestUrl().toEncoded().mid(qsizetype(sizeof PartScheme));
    if (job->requestMethod() == "GET")
        (new PartFetch(*job, *this))->start(QUrl::fromEncoded(address));
    else
        job->fail(QWebEngineUrlRequestJob::RequestDenied);
}

} // namespace zel
