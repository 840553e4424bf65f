#include "app/DebugCapture.h"

#include "base/AtomicFile.h"
#include "surface/MenuPanel.h"
#include "surface/PopoverRender.h"
#include "surface/StatusItemController.h"
#include "surface/words/CaptureReport.h"

#include <QDir>
#include <QTimer>

#include <cstdio>

DebugCapture::DebugCapture(AppModel& model, MenuPanel& panel, StatusItemController& statusItem, const Clock& clock,
    QString folder, std::chrono::milliseconds delay, QObject* parent)
    : QObject(parent)
    , m_model(model)
    , m_panel(panel)
    , m_statusItem(statusItem)
    , m_clock(clock)
    , m_folder(std::move(folder))
    , m_delay(delay)
{
}

void DebugCapture::start()
{
    // A folder that can't be made shows as the report that isn't there.
    QDir().mkpath(QDir(m_folder).absolutePath());
    QTimer::singleShot(m_delay, this, &DebugCapture::tour);
}

void DebugCapture::tour()
{
    QStringList report;
    const QRect place = m_statusItem.button() ? m_statusItem.button()->place() : QRect();
    report << CaptureReport::statusItemLine(place);

    const bool wasOpen = m_panel.isOpen();
    m_panel.open(place);
    report << CaptureReport::popoverLine(m_panel.isOpen());
    QString failure;
    if (const std::optional<PopoverRender::Rendered> page = PopoverRender::render(m_model, m_clock, &failure))
        PopoverRender::save(*page, QDir(m_folder).absolutePath(), QStringLiteral("live-popover"), &failure);
    report << CaptureReport::pictureLine(QStringLiteral("live-popover.png"), failure);
    if (!wasOpen)
        m_panel.close();

    report << CaptureReport::missingWindowLine(QStringLiteral("providers"))
           << CaptureReport::missingWindowLine(QStringLiteral("providers editor"))
           << CaptureReport::missingWindowLine(QStringLiteral("setup"));

    const QString reportFile = QDir(m_folder).absoluteFilePath(QStringLiteral("report.txt"));
    if (const std::optional<QString> problem
        = writeFileAtomically(reportFile, (report.join(u'\n') + u'\n').toUtf8(), 0644)) {
        std::fputs(
            qPrintable(
                QStringLiteral("Tidewatch: the capture report %1 wasn’t written: %2\n").arg(reportFile, *problem)),
            stdout);
        std::fflush(stdout);
    }
    Q_EMIT finished();
}
