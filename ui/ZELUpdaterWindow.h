// The updater's window: small, dark, without a frame.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QPointer>
#include <QWidget>

#include <optional>

/// Holds one page at a time in its content view. It has no title bar: dragging its background moves it. Only
/// code resizes and closes it; what the window system asks (Alt+F4) is ignored, and it never keeps the
/// application running. Main thread only.
///
/// Key presses that what has the focus does not take go to the buttons of the content view, in the order in
/// which they were added, until one handles them. Accessibility clients see a dialog; its title, unless it
/// was given one before it is shown, is the application's name.
class ZEL_EXPORT ZELUpdaterWindow : public QWidget
{
    Q_OBJECT
public:
    /// 350 × 450 points at (0, 0), not shown.
    ZELUpdaterWindow();

    /// The widget that pages are added to; it fills the window.
    QWidget *contentView() const { return m_contentView; }

    /// Position on the screen and size, in points. A sheet is placed under its host's top edge whatever its
    /// position, which is only remembered; on Wayland, which places windows itself, that is so for every
    /// window.
    QRect frame() const;

    /// Moves and resizes at once. `display` also draws what is shown before it returns.
    void setFrame(const QRect &frame, bool display);

    /// The centre of the current frame kept: where a frame of `size` goes.
    QRect centredFrame(const QSize &size) const;

    /// Moves to the middle of the screen.
    void center();

    /// Shows the window, raises it and makes it the active one; a minimised one comes back.
    void makeKeyAndOrderFront();

    /// Whether the window is shown and not minimised.
    bool isSeen() const;

    /// Attaches the window to `host`'s window and shows it there: under the top edge, in the middle, above
    /// it, and with the host's window blocked until `endSheet`. Ends by itself when the host's window goes
    /// away.
    void beginSheet(QWidget *host);

    /// Detaches the window and hides it. Does nothing for a window that is no sheet.
    void endSheet();

    /// The window that this one is attached to; null for a free-standing window.
    QWidget *sheetParent() const { return m_sheetParent; }

    bool acceptsFirstResponder() const { return true; }
    bool canBecomeMainWindow() const { return true; }
    bool canBecomeKeyWindow() const { return true; }

    /// Offers a key press to the buttons of the content view; whether one handled it.
    bool performKeyEquivalent(QKeyEvent *event);

protected:
    bool event(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    QPoint sheetPlace() const;
    void followHost();
    void takeColours();

    QWidget *m_contentView;
    QWidget *m_edge;
    QPointer<QWidget> m_sheetParent;
    QPoint m_sheetOrigin; // the position that was set last
    std::optional<QPoint> m_grip; // where a drag took hold of the window; not when the window system moves it
};
