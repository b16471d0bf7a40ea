#include "ContactSheet.h"

#include <QDir>
#include <QImage>
#include <QPainter>

namespace {

constexpr int Columns = 6;
constexpr QSize Cell(380, 460); // of one picture, with room for its name

void drawCell(QPainter &painter, const QRect &cell, const QFileInfo &file)
{
    QImage image(file.filePath());
    painter.drawText(cell.adjusted(15, 5, -15, 0), Qt::AlignTop | Qt::AlignHCenter, file.completeBaseName());
    const QSize room = cell.size() - QSize(20, 40);
    if (image.width() > room.width() || image.height() > room.height())
        image = image.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    painter.drawImage(cell.left() + (cell.width() - image.width()) / 2, cell.top() + 30, image);
}

} // namespace

bool makeContactSheet(const QString &folder, const QString &file)
{
    const QFileInfoList files =
        QDir(folder).entryInfoList({QStringLiteral("*.png")}, QDir::Files, QDir::Name);
    const int rows = int(files.size() + Columns - 1) / Columns;
    QImage sheet(Columns * Cell.width(), rows * Cell.height(), QImage::Format_RGB32);
    sheet.fill(QColor(90, 90, 90));
    QPainter painter(&sheet);
    painter.setPen(Qt::white);
    for (int i = 0; i < files.size(); ++i)
        drawCell(painter, {QPoint(i % Columns * Cell.width(), i / Columns * Cell.height()), Cell}, files[i]);
    painter.end();
    return sheet.save(file);
}
