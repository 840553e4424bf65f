#include "LiveModel.h"
#include "PinnedClaude.h"

#include "Fixture.h"
#include "Launch.h"

#include "surface/PopoverRender.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

LiveModel::LiveModel(bool startService)
{
    if (startService)
        restartService();
}

LiveModel::~LiveModel()
{
    m_model.reset();
}

bool LiveModel::usePinnedClaude()
{
    if (!QFileInfo::exists(PinnedClaude::kProgram))
        return false;
    service.setVariable(QStringLiteral("PATH"), PinnedClaude::kFolder + u':' + qEnvironmentVariable("PATH"));
    return true;
}

bool LiveModel::restartService()
{
    if (service.start())
        return true;
    QTest::qFail(qPrintable(service.lastError()), __FILE__, __LINE__);
    return false;
}

void LiveModel::seed(const QByteArray& calls) const
{
    QByteArray text = calls;
    text.replace("\"@now\"", QByteArray::number(QDateTime::currentMSecsSinceEpoch()));
    const QJsonArray list = Fixture::json(text).toArray();
    for (const QJsonValue& call : list)
        service.qa("POST", call[0].toString(), call[1]);
}

bool LiveModel::startModel(LiveFeed::Timing timing, bool settle)
{
    m_model = std::make_unique<AppModel>(service.environment(), Clock::system(), timing);
    // This machine's own Claude Code is none of the test's business.
    m_model->setClaudeLook([here = m_claudeHere] { return here; });
    m_model->start();
    if (!settle)
        return true;
    // The feed coming up during the first read asks for another at once:
    // settled means all that is done and no read followed for half a second.
    const AppModel& model = *m_model;
    QSignalSpy reads(m_model.get(), &AppModel::readFinished);
    QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired()) {
        const qsizetype before = reads.count();
        QTest::qWait(500);
        if (model.firstPollDone() && model.feedLive() && model.snapshot() && model.status() && model.reading() == 0
            && reads.count() == before)
            return true;
    }
    return false;
}

LiveFeed::Timing LiveModel::quickFeed()
{
    LiveFeed::Timing timing;
    timing.firstDelay = 0.2;
    timing.afterHeard = 0.2;
    timing.maxDelay = 1;
    return timing;
}

QStringList LiveModel::twin() const
{
    QString error;
    const std::optional<PopoverRender::Rendered> rendered = PopoverRender::render(*m_model, Clock::system(), &error);
    if (!rendered)
        qWarning("render failed: %s", qPrintable(error));
    return rendered ? rendered->twin : QStringList();
}

QStringList LiveModel::liveRender(QStringList* statusItem, const QString& page) const
{
    const QString folder = scratch.file(QStringLiteral("renders"));
    QStringList arguments{QStringLiteral("--render-popover"), folder, QStringLiteral("--live")};
    if (!page.isEmpty())
        arguments << QStringLiteral("--page") << page;
    const LaunchResult result = launch(arguments, launchEnvironment(scratch, service.variables()), 60000);
    if (result.code != 0)
        qWarning("the live render failed: %s", qPrintable(result.output));
    if (statusItem)
        *statusItem = textLines(folder + QStringLiteral("/status-item.txt"));
    return textLines(
        folder + (page.isEmpty() ? QStringLiteral("/live-popover.txt") : QStringLiteral("/live-%1.txt").arg(page)));
}

std::optional<Session> LiveModel::session(const QString& id) const
{
    if (m_model && m_model->snapshot()) {
        for (const Session& session : m_model->snapshot()->sessions.items) {
            if (session.id == id)
                return session;
        }
    }
    return std::nullopt;
}
