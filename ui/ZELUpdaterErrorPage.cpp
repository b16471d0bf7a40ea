#include "ZELUpdaterErrorPage.h"

#include "ButtonRow.h"
#include "PageParts.h"
#include "ZELUpdaterButton.h"

#include <QLabel>

ZELUpdaterErrorPage::ZELUpdaterErrorPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Error", 230)
    , m_text(zel::makeMessage(this, "Updater.An error occurred while updating.", 32))
    , m_progress(zel::makeActivity(this, m_text, 50))
{
    setCancelButton(zel::makeButton(this, "Updater.Cancel", 0));
    m_retryButton = zel::makeButton(this, "Updater.Retry", 1);
    ZELLayoutViewsHorizontal(cancelButton(), m_retryButton, 32, zel::buttonRowFrame());
}
