#include "ServiceProcess.h"

#include "FreePorts.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTest>
#include <QThread>
#include <QTimer>

namespace {

int exchange(const QByteArray& method, const QUrl& url, const QByteArray& token, const QByteArray* body,
    QByteArray* replyBody, int timeoutMs)
{
    QNetworkAccessManager network;
    network.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request(url);
    if (!token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + token);
    if (body)
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply* reply
        = body ? network.sendCustomRequest(request, method, *body) : network.sendCustomRequest(request, method);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    if (!reply->isFinished()) {
        reply->abort();
        delete reply;
        return 0;
    }
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (replyBody)
        *replyBody = reply->readAll();
    delete reply;
    return status;
}

} // namespace

ServiceProcess::ServiceProcess(const QString& root)
    : m_root(root)
{
    const QList<int> ports = freePorts(2);
    if (ports.size() == 2) {
        m_apiPort = ports.at(0);
        m_localPort = ports.at(1);
    }
    QDir().mkpath(m_root + QStringLiteral("/home"));
}

ServiceProcess::~ServiceProcess()
{
    if (isRunning())
        kill();
}

QString ServiceProcess::nodeProgram()
{
    const QString configured = QStringLiteral(TIDEWATCH_NODE_PATH);
    return configured.isEmpty() ? QStringLiteral("node") : configured;
}

QHash<QString, QString> ServiceProcess::variables() const
{
    return {
        {QStringLiteral("TIDEWATCH_SUPPORT"), supportFolder()},
        {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(m_apiPort)},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(m_localPort)},
        // Whatever the service or the app would do in the user's folders lands here instead.
        {QStringLiteral("XDG_DATA_HOME"), m_root + QStringLiteral("/home/.local/share")},
        {QStringLiteral("XDG_STATE_HOME"), m_root + QStringLiteral("/home/.local/state")},
        {QStringLiteral("XDG_CONFIG_HOME"), m_root + QStringLiteral("/home/.config")},
    };
}

Environment ServiceProcess::environment() const
{
    return Environment(variables(), m_root + QStringLiteral("/home"));
}

bool ServiceProcess::start()
{
    m_lastError.clear();
    if (m_apiPort == 0) {
        m_lastError = QStringLiteral("no free loopback ports");
        return false;
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& key : environment.keys()) {
        if (key.startsWith(QLatin1StringView("TIDEWATCH_")))
            environment.remove(key);
    }
    const auto ours = variables();
    for (auto it = ours.begin(); it != ours.end(); ++it)
        environment.insert(it.key(), it.value());
    // The caller's own agent folders would have a test copy read their
    // sessions and take the integration's install there.
    environment.remove(QStringLiteral("CLAUDE_CONFIG_DIR"));
    environment.remove(QStringLiteral("CODEX_HOME"));
    for (auto it = m_more.begin(); it != m_more.end(); ++it)
        environment.insert(it.key(), it.value());
    m_process.setProcessEnvironment(environment);
    m_process.setWorkingDirectory(QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon"));
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(nodeProgram(), {QStringLiteral("src/main")});
    if (!m_process.waitForStarted(10000)) {
        m_lastError = QStringLiteral("couldn't start %1: %2").arg(nodeProgram(), m_process.errorString());
        return false;
    }
    const QUrl health(QStringLiteral("http://127.0.0.1:%1/v1/health").arg(m_apiPort));
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 20000) {
        QByteArray body;
        if (exchange("GET", health, {}, nullptr, &body, 1000) == 200) {
            // What a test puts in through /qa must not be overwritten by the start's own lookups.
            const QUrl settled(QStringLiteral("http://127.0.0.1:%1/qa/settled").arg(m_localPort));
            if (exchange("GET", settled, token().toUtf8(), nullptr, &body, 20000) == 200)
                return true;
            m_lastError = QStringLiteral("the service didn't settle: ") + QString::fromUtf8(body);
            kill();
            return false;
        }
        if (m_process.state() == QProcess::NotRunning)
            break;
        m_process.waitForReadyRead(100);
    }
    m_lastError = QStringLiteral("the service didn't answer its health probe; it said: ")
        + QString::fromUtf8(m_process.readAll());
    kill();
    return false;
}

int ServiceProcess::stop()
{
    if (!isRunning())
        return m_process.exitCode();
    m_process.terminate();
    if (!m_process.waitForFinished(10000)) {
        kill();
        return -1;
    }
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void ServiceProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

QString ServiceProcess::token() const
{
    QFile file(supportFolder() + QStringLiteral("/admin-token"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).trimmed();
}

QJsonValue ServiceProcess::qa(const QByteArray& method, const QString& path, const QJsonValue& body) const
{
    const QByteArray payload = QJsonDocument::fromVariant(body.toVariant()).toJson(QJsonDocument::Compact);
    QByteArray replyBody;
    const QUrl url(QStringLiteral("http://127.0.0.1:%1%2").arg(m_localPort).arg(path));
    const int status
        = exchange(method, url, token().toUtf8(), body.isUndefined() ? nullptr : &payload, &replyBody, 10000);
    const QJsonDocument document = QJsonDocument::fromJson(replyBody);
    const QJsonValue reply = document.isObject() ? QJsonValue(document.object())
        : document.isArray()                     ? QJsonValue(document.array())
                                                 : QJsonValue(QString::fromUtf8(replyBody));
    if (status < 200 || status > 299) {
        QTest::qFail(qPrintable(QStringLiteral("%1 %2 answered %3: %4")
                                    .arg(QString::fromLatin1(method), path)
                                    .arg(status)
                                    .arg(QString::fromUtf8(replyBody))),
            __FILE__, __LINE__);
    }
    return reply;
}

bool ServiceProcess::faultsSpent() const
{
    return qa("GET", QStringLiteral("/qa/faults"))[QStringLiteral("faults")].toArray().isEmpty();
}
