#include "ZELUpdaterHistoryPage.h"

#include "base/SafeText.h"
#include "ButtonRow.h"
#include "NotesView.h"
#include "PageParts.h"
#include "WebViewCast.h"
#include "WindowGrip.h"
#include "ZELUpdaterButton.h"

#include <QFocusEvent>
#include <QGuiApplication>
#include <QLabel>
#include <QStringDecoder>

namespace {

constexpr int ButtonStrip = 96; // pixels at the bottom
constexpr std::size_t LongestVersion = 48;

ZELLayoutFrame notesFrame()
{
    return ZELMakeLayoutFrame(0, 0, 0, -ButtonStrip, ZELLayoutNotSet, ZELLayoutNotSet);
}

QString shownVersion(const QVariantMap &record)
{
    const QString version = record[QStringLiteral("version")].toString();
    const QString text = version.isEmpty() ? record[QStringLiteral("build")].toString() : version;
    return QString::fromStdString(zel::safeText(text.toStdString(), LongestVersion));
}

} // namespace

ZELUpdaterHistoryPage::ZELUpdaterHistoryPage(QWidget *parent)
    : QWidget(parent)
    , m_summary(new QWidget(this))
    , m_version(zel::makeMessage(m_summary, nullptr, 32))
    , m_downloadButton(zel::makeButton(this, "Updater.Install", 1))
{
    // Deliberate: Later bears the text of Cancel.
    m_laterButton = zel::makeButton(this, "Updater.Cancel", 0);
    m_skipButton = zel::makeButton(this, "Updater.Skip", 0);

    m_summary->setAutoFillBackground(true);
    ZELLayoutView(m_summary, notesFrame());
    zel::makeTitle(m_summary, "", 140)->setText(QGuiApplication::applicationDisplayName());
    ZELLayoutView(m_version,
                  ZELMakeLayoutFrame(32, -32, 176, ZELLayoutNotSet, ZELLayoutNotSet, ZELLayoutNotSet));
}

ZELUpdaterHistoryPage::~ZELUpdaterHistoryPage() = default;

zel::NotesView *ZELUpdaterHistoryPage::notes()
{
    if (m_notes)
        return m_notes.get();
    m_notes = zel::makeNotesView(this);
    if (!m_notes)
        return nullptr;
    m_notes->setOnShown([this](bool hasContent) { m_summary->setHidden(hasContent); });
    QWidget *view = m_notes->widget();
    view->lower();
    ZELLayoutView(view, notesFrame());
    new zel::WindowGrip(view);
    view->show();
    setTabOrder(view, m_laterButton);
    if (hasFocus())
        view->setFocus();
    return m_notes.get();
}

QWebEngineView *ZELUpdaterHistoryPage::webview() const
{
    if (m_webview)
        return zel::asWebView(m_webview);
    return m_notes ? m_notes->view() : nullptr;
}

void ZELUpdaterHistoryPage::setWebview(QWebEngineView *webview)
{
    m_webview = zel::asObject(webview);
}

void ZELUpdaterHistoryPage::loadURL(const QUrl &url, const QByteArray &body)
{
    if (notes())
        notes()->load(url, body);
}

void ZELUpdaterHistoryPage::loadHTML(const QByteArray &html)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder(html);
    if (notes())
        notes()->setHtml(decoder.hasError() ? QString() : text);
}

void ZELUpdaterHistoryPage::updateButtons(const QVariantMap &update)
{
    m_version->setText(shownVersion(update[QStringLiteral("update")].toMap()));
    for (ZELUpdaterButton *button : {m_laterButton, m_downloadButton, m_skipButton}) {
        button->setParent(nullptr);
        button->setParent(this);
        button->show();
    }
    ZELLayoutViewsHorizontal2(m_laterButton, m_skipButton, m_downloadButton, 20, zel::buttonRowFrame());
    if (m_notes && m_notes->widget())
        setTabOrder(m_notes->widget(), m_laterButton);
    setTabOrder(m_laterButton, m_skipButton);
    setTabOrder(m_skipButton, m_downloadButton);
}

// Keys scroll the notes at once.
void ZELUpdaterHistoryPage::focusInEvent(QFocusEvent *event)
{
    if (m_notes && m_notes->widget())
        m_notes->widget()->setFocus(event->reason());
}
