#include "app/FeedSelfTest.h"

#include "link/DaemonClient.h"
#include "link/LiveFeed.h"
#include "model/SnapshotPatch.h"

#include <QEventLoop>
#include <QTimer>

#include <cstdio>

namespace {

constexpr double kDefaultSeconds = 10;
/// How long the feed is heard after the last answer, for the change it made; the service gathers changes for 100 ms.
constexpr int kSettleMs = 500;

QString plural(qsizetype count, const char* one, const char* many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1StringView(count == 1 ? one : many));
}

QString percent(double value)
{
    return QString::number(qRound(value)) + QLatin1Char('%');
}

// A few words for each message: the id where it has one, else what changed.
QString summary(const Feed::Message& message)
{
    if (const auto* snapshot = std::get_if<Snapshot>(&message)) {
        return plural(snapshot->sessions.items.size(), "session", "sessions") + QStringLiteral(", ")
            + plural(snapshot->approvals.items.size(), "approval", "approvals");
    }
    if (const auto* session = std::get_if<Session>(&message))
        return session->id + (session->state ? QLatin1Char(' ') + *session->state : QString());
    if (const auto* approval = std::get_if<Approval>(&message))
        return approval->id;
    if (const auto* resolved = std::get_if<Feed::Resolved>(&message))
        return resolved->id;
    if (const auto* usage = std::get_if<Usage>(&message))
        return usage->fiveHour ? QStringLiteral("five-hour ") + percent(usage->fiveHour->pct)
                               : QStringLiteral("no windows");
    if (const auto* account = std::get_if<Account>(&message))
        return account->state;
    if (const auto* battery = std::get_if<Feed::BatteryChange>(&message))
        return battery->battery ? percent(battery->battery->percent) : QStringLiteral("none");
    if (const auto* awake = std::get_if<Awake>(&message))
        return awakeModeName(awake->mode);
    if (const auto* guide = std::get_if<GuideState>(&message))
        return guide->step;
    if (const auto* show = std::get_if<Feed::GuideShow>(&message))
        return show->guide.step + QStringLiteral(" (") + show->reason + QLatin1Char(')');
    if (const auto* stt = std::get_if<SttState>(&message))
        return stt->ready ? QStringLiteral("ready") : QStringLiteral("not ready");
    if (const auto* providers = std::get_if<Feed::ProvidersChange>(&message))
        return plural(providers->providers.size(), "provider", "providers");
    if (const auto* codex = std::get_if<Feed::CodexChange>(&message)) {
        if (!codex->codex)
            return QStringLiteral("none");
        return codex->codex->enabled ? QStringLiteral("on") : QStringLiteral("off");
    }
    return QString();
}

QString messageLine(const Feed::Message& message)
{
    const QString words = summary(message);
    return QStringLiteral("message ") + SnapshotPatch::typeName(message)
        + (words.isEmpty() ? QString() : QLatin1Char(' ') + words);
}

QString accountLine(const QByteArray& reply)
{
    const std::optional<QJsonValue> root = Lenient::parseRoot(reply);
    const std::optional<Account> account = root && root->isObject()
        ? Account::fromJson(root->toObject().value(QLatin1StringView("account")))
        : std::nullopt;
    if (!account)
        return QStringLiteral("sign-in: the reply held no account");
    QString line = QStringLiteral("sign-in: account ") + account->state;
    if (account->login && account->login->state)
        line += QStringLiteral(", login ") + *account->login->state;
    return line;
}

QString openedLine(const QString& sessionId, const QByteArray& reply)
{
    const std::optional<QJsonValue> root = Lenient::parseRoot(reply);
    const QJsonObject object = root && root->isObject() ? root->toObject() : QJsonObject();
    const std::optional<QString> app = Lenient::string(object.value(QLatin1StringView("app")));
    QString line = QStringLiteral("open: ") + sessionId + QStringLiteral(" in ")
        + app.value_or(QStringLiteral("an unnamed app"));
    if (Lenient::boolean(object.value(QLatin1StringView("already"))).value_or(false))
        line += QStringLiteral(" (already open)");
    return line;
}

} // namespace

QString feedSelfTestRefusal()
{
    return QStringLiteral("FAILED: run this as a test copy with a folder and ports of its own (TIDEWATCH_SUPPORT, "
                          "TIDEWATCH_API_PORT, TIDEWATCH_LOCAL_PORT), so nothing of the real install is touched.");
}

int runFeedSelfTest(double seconds, bool signIn, bool open)
{
    return runFeedSelfTest(Environment::current(), seconds, signIn, open, [](const QString& line) {
        std::fputs(line.toLocal8Bit().constData(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    });
}

int runFeedSelfTest(const Environment& environment, double seconds, bool signIn, bool open,
    const std::function<void(const QString&)>& print)
{
    if (!environment.isTestCopy() || !environment.isIsolated()) {
        print(feedSelfTestRefusal());
        return 1;
    }
    const double listen = seconds > 0 ? seconds : kDefaultSeconds;

    QEventLoop loop;
    DaemonClient client(environment);
    LiveFeed feed(environment);
    bool wentLive = false;
    int messages = 0;
    bool actionsStarted = false;
    // The listening is over once its time is up and every action has its answer (each call has its own limit).
    bool listened = false;
    int unanswered = 0;
    // What an answer changed reaches the feed a moment after the answer itself.
    const auto endIfDone = [&] {
        if (listened && unanswered == 0)
            QTimer::singleShot(kSettleMs, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    };

    // The actions wait for the first snapshot: it names the session to open.
    const auto startActions = [&](const Snapshot& snapshot) {
        actionsStarted = true;
        if (signIn) {
            ++unanswered;
            client.request(DaemonClient::Method::Post, QStringLiteral("/v1/account/login"),
                QJsonObject{{QStringLiteral("where"), QStringLiteral("mac")}}, 20, [&](DaemonResult<QByteArray> reply) {
                    print(reply.ok() ? accountLine(reply.value())
                                     : QStringLiteral("sign-in: ") + reply.error().errorDescription());
                    --unanswered;
                    endIfDone();
                });
        }
        if (open) {
            if (snapshot.sessions.items.isEmpty()) {
                print(QStringLiteral("open: no session to open"));
            } else {
                const QString id = snapshot.sessions.items.first().id;
                ++unanswered;
                client.request(DaemonClient::Method::Post,
                    QStringLiteral("/v1/sessions/") + DaemonClient::pathSegment(id) + QStringLiteral("/open"),
                    std::nullopt, 15, [&, id](DaemonResult<QByteArray> reply) {
                        print(reply.ok() ? openedLine(id, reply.value())
                                         : QStringLiteral("open: ") + reply.error().errorDescription());
                        --unanswered;
                        endIfDone();
                    });
            }
        }
    };

    feed.setSink([&](const LiveFeed::Event& event) {
        if (event.kind == LiveFeed::Event::Kind::Live) {
            wentLive = wentLive || event.live;
            print(event.live ? QStringLiteral("live true") : QStringLiteral("live false"));
            return;
        }
        ++messages;
        print(messageLine(*event.message));
        if (const auto* snapshot = std::get_if<Snapshot>(&*event.message); snapshot && !actionsStarted)
            startActions(*snapshot);
    });
    feed.setPongSink([&print] { print(QStringLiteral("pong sent")); });

    QTimer::singleShot(int(listen * 1000), Qt::PreciseTimer, &loop, [&] {
        listened = true;
        endIfDone();
    });
    feed.start();
    loop.exec();

    const QString span = QString::number(listen);
    if (wentLive) {
        print(QStringLiteral("OK: live, %1 in %2 s").arg(plural(messages, "message", "messages"), span));
        return 0;
    }
    if (!DaemonClient::readToken(environment))
        print(QStringLiteral("FAILED: ") + DaemonError::noToken().errorDescription());
    else
        print(QStringLiteral("FAILED: the feed never went live in %1 s.").arg(span));
    return 1;
}
