// The texts of the pages.
#pragma once

#include <QColor>
#include <QLabel>

class QTextLayout;

namespace zel {

/// A centred text that stays within its rectangle: one that is too long for it is written smaller and, where that does
/// not suffice, shortened; the tool tip has it whole then. A word that is wider than the label is broken. White where
/// high contrast is asked for.
class TextLabel : public QLabel
{
    Q_OBJECT
public:
    TextLabel(const QString &text, const QFont &font, const QColor &color, QWidget *parent);

    QSize sizeHint() const override;
    int heightForWidth(int width) const override;

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    bool layOut(QTextLayout &layout) const;
    void takeColor();

    const QColor m_color;
};

} // namespace zel
