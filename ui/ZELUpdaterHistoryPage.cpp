#include "ZELUpdaterHistoryPage.h"

#include "ButtonRow.h"
#include "NotesView.h"
#include "PageParts.h"
#include "ZELUpdaterButton.h"

#include <QStringDecoder>

ZELUpdaterHistoryPage::ZELUpdaterHistoryPage(QWidget *parent)
    : QWidget(parent)
    , m_downloadButton(zel::makeButton(this, "Updater.Install", 1))
{
    // Deliberate: Later bears the text of Cancel.
    m_laterButton = zel::makeButton(this, "Updater.Cancel", 0);
    m_skipButton = zel::makeButton(this, "Updater.Skip", 0);
}

ZELUpdaterHistoryPage::~ZELUpdaterHistoryPage() = default;

zel::NotesView *ZELUpdaterHistoryPage::notes()
{
    if (m_notes)
        return m_notes.get();
    m_notes = zel::makeNotesView(this);
    if (!m_notes)
        return nullptr;
    QWidget *view = m_notes->widget();
    view->lower();
    ZELLayoutView(view, ZELMakeLayoutFrame(0, 0, 0, -96, ZELLayoutNotSet, ZELLayoutNotSet));
    view->show();
    return m_notes.get();
}

QWebEngineView *ZELUpdaterHistoryPage::webview()
{
    if (m_webview)
        return m_webview;
    return notes() ? notes()->view() : nullptr;
}

void ZELUpdaterHistoryPage::setWebview(QWebEngineView *webview)
{
    m_webview = webview;
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

void ZELUpdaterHistoryPage::updateButtons(const QVariantMap &)
{
    for (ZELUpdaterButton *button : {m_laterButton, m_downloadButton, m_skipButton}) {
        button->setParent(nullptr);
        button->setParent(this);
        button->show();
    }
    ZELLayoutViewsHorizontal2(m_laterButton, m_skipButton, m_downloadButton, 20, zel::buttonRowFrame());
}
