#include "link/FeedMessage.h"
#include "link/GuideState.h"
#include "link/Health.h"
#include "link/LocalStatus.h"
#include "link/PairStart.h"
#include "link/Snapshot.h"
#include "link/SttState.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <unistd.h>

using namespace Qt::StringLiterals;

// Mutations of real samples, decoded as every record: nothing may crash or
// throw, and the same bytes always decode to the same value. The seed is fixed
// so that runs repeat; TIDEWATCH_FUZZ_SEED picks another, TIDEWATCH_FUZZ_ROUNDS
// sets how many cases run (a few hundred unless told; a soak sets a large
// count), TIDEWATCH_FUZZ_CASE runs one case alone. A failing or crashing
// case prints the seed and the case.
class TestDecodeFuzz : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void mutations();
};

namespace {

constexpr quint64 kDefaultSeed = 0x7469646577617463; // "tidewatc"
constexpr int kDefaultRounds = 400;

// The case under way, for the crash handler; written before each case.
char g_crashNote[160] = "no case running\n";

void onCrash(int sig)
{
    const ssize_t written = ::write(STDERR_FILENO, g_crashNote, std::strlen(g_crashNote));
    (void)written;
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

class Rng
{
public:
    explicit Rng(quint64 seed)
        : m_engine(seed)
    {
    }
    int below(int n) { return n <= 1 ? 0 : int(m_engine() % quint64(n)); }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(m_engine) < p; }
    quint64 next() { return m_engine(); }

private:
    std::mt19937_64 m_engine;
};

// Keys the records read, so that random objects sometimes become readable ones.
const QStringList& wireKeys()
{
    static const QStringList keys{u"id"_s, u"title"_s, u"state"_s, u"mode"_s, u"pct"_s, u"percent"_s, u"resetsAt"_s,
        u"createdAt"_s, u"sessions"_s, u"approvals"_s, u"questions"_s, u"options"_s, u"input"_s, u"label"_s, u"kind"_s,
        u"name"_s, u"list"_s, u"lastRun"_s, u"ask"_s, u"term"_s, u"blocked"_s, u"resume"_s, u"usage"_s, u"fiveHour"_s,
        u"mac"_s, u"battery"_s, u"awake"_s, u"count"_s, u"running"_s, u"devices"_s, u"link"_s, u"ready"_s, u"step"_s,
        u"x\u0000y"_s, u"ünïcødé’"_s, QString()};
    return keys;
}

QString anyKey(Rng& rng)
{
    return wireKeys()[rng.below(int(wireKeys().size()))];
}

// Around the parser's nesting limit of 1024, on both sides.
QJsonValue deepValue(Rng& rng)
{
    QJsonValue value = QJsonObject{{u"id"_s, u"deep"_s}};
    for (int i = rng.chance(0.7) ? 1 + rng.below(200) : 1000 + rng.below(60); i > 0; --i)
        value = rng.chance(0.5) ? QJsonValue(QJsonArray{value}) : QJsonValue(QJsonObject{{anyKey(rng), value}});
    return value;
}

QJsonValue randomValue(Rng& rng, int depth = 0)
{
    static const QList<double> numbers{0, -0.0, 1, -1, 2.5, 1e11, 1e11 + 1, 1e300, -1e300, 9.2e18,
        1.7976931348623157e308, 4.9e-324, 1760007200000.6, 1760007200, 100, -86400};
    static const QStringList strings{QString(), u"soon"_s, u"1760007200"_s, u"1760007200000"_s, u"-1"_s,
        u"2025-10-09T10:53:20Z"_s, u"2025-10-09T10:53:20.123+02:00"_s, u"2025-13-40T99:99:99Z"_s, u"nan"_s, u"1e400"_s,
        u"working"_s, u"needs_you"_s, u"ünïcødé ’…"_s, QString(4000, u'x'), u"\u0000"_s, u" 17"_s};
    switch (rng.below(depth > 3 ? 5 : 8)) {
    case 0:
        return numbers[rng.below(int(numbers.size()))];
    case 1:
        return double(qint64(rng.next())) / double(1 + rng.below(1000));
    case 2:
        return strings[rng.below(int(strings.size()))];
    case 3:
        return rng.chance(0.5);
    case 4:
        return QJsonValue::Null;
    case 5: {
        QJsonArray array;
        for (int i = rng.below(4); i > 0; --i)
            array.append(randomValue(rng, depth + 1));
        return array;
    }
    case 6: {
        QJsonObject object;
        for (int i = rng.below(5); i > 0; --i)
            object.insert(anyKey(rng), randomValue(rng, depth + 1));
        return object;
    }
    default:
        return deepValue(rng);
    }
}

// The value with one node somewhere inside it replaced, removed, added or doubled.
QJsonValue mutateTree(const QJsonValue& value, Rng& rng)
{
    const bool descend
        = (value.isObject() && !value.toObject().isEmpty()) || (value.isArray() && !value.toArray().isEmpty());
    if (!descend || rng.chance(0.15))
        return randomValue(rng);
    if (value.isObject()) {
        QJsonObject object = value.toObject();
        const QString key = object.keys().at(rng.below(int(object.size())));
        if (rng.chance(0.1))
            object.remove(key);
        else if (rng.chance(0.1))
            object.insert(anyKey(rng), randomValue(rng));
        else
            object.insert(key, mutateTree(object.value(key), rng));
        return object;
    }
    QJsonArray array = value.toArray();
    const int at = rng.below(int(array.size()));
    if (rng.chance(0.1))
        array.removeAt(at);
    else if (rng.chance(0.1))
        array.insert(at, array.at(at));
    else
        array.replace(at, mutateTree(array.at(at), rng));
    return array;
}

QByteArray serialise(const QJsonValue& value)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    // A scalar root; not a document, but bytes a broken service could send.
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

QByteArray mutateBytes(const QByteArray& sample, Rng& rng)
{
    QByteArray bytes = sample;
    const auto at = [&] { return qsizetype(rng.below(int(bytes.size()) + 1)); };
    switch (rng.below(4)) {
    case 0:
        for (int flips = 1 + rng.below(8); flips > 0 && !bytes.isEmpty(); --flips)
            bytes[at() % bytes.size()] = char(rng.below(256));
        break;
    case 1:
        bytes.truncate(at());
        break;
    case 2: {
        const qsizetype from = at();
        const QByteArray range = bytes.mid(from, 1 + rng.below(400));
        bytes.insert(at(), range);
        break;
    }
    default: {
        // Structural characters where they don't belong.
        static const QByteArray tokens[] = {"{", "}", "[", "]", ",", ":", "\"", "null", "1e999", "\\u00", "-"};
        for (int n = 1 + rng.below(4); n > 0; --n)
            bytes.insert(at(), tokens[rng.below(int(std::size(tokens)))]);
        break;
    }
    }
    return bytes;
}

template <class T> void checkList(const FlexList<T>& list)
{
    // Readable items are a subset of what was counted; a bare count has none.
    if (list.items.size() > std::max<qint64>(list.count, 0))
        throw std::logic_error("a list holds more items than it counts");
}

void checkSnapshot(const Snapshot& snapshot)
{
    checkList(snapshot.sessions);
    checkList(snapshot.approvals);
    checkList(snapshot.providers);
    if (snapshot.mac && snapshot.mac->battery
        && !(snapshot.mac->battery->percent >= 0 && snapshot.mac->battery->percent <= 100))
        throw std::logic_error("battery out of range");
    if (snapshot.usage && snapshot.usage->fiveHour && !std::isfinite(snapshot.usage->fiveHour->pct))
        throw std::logic_error("usage window not finite");
    if (snapshot.account && snapshot.account->state.isEmpty())
        throw std::logic_error("account without a state");
}

// Every reading the app makes of a reply or a feed frame, twice over.
void decodeEverything(const QByteArray& bytes)
{
    const std::optional<Snapshot> snapshot = decodeDocument<Snapshot>(bytes);
    if (snapshot) {
        checkSnapshot(*snapshot);
        if (decodeDocument<Snapshot>(bytes) != snapshot)
            throw std::logic_error("the same bytes decoded to two snapshots");
    }
    const std::optional<LocalStatus> status = decodeDocument<LocalStatus>(bytes);
    if (status) {
        checkList(status->devices);
        checkList(status->sessions);
        checkList(status->approvals);
        if (decodeDocument<LocalStatus>(bytes) != status)
            throw std::logic_error("the same bytes decoded to two statuses");
    }
    decodeDocument<Session>(bytes);
    decodeDocument<Approval>(bytes);
    decodeDocument<Account>(bytes);
    decodeDocument<Awake>(bytes);
    decodeDocument<Health>(bytes);
    decodeDocument<PairStart>(bytes);
    decodeDocument<GuideState>(bytes);
    decodeDocument<SttState>(bytes);
    if (const auto devices = decodeDeviceList(bytes))
        checkList(*devices);

    // Feed frames, read as the live feed reads them.
    const Feed::Frame frame = Feed::readFrame(bytes);
    if (frame.message && std::holds_alternative<Snapshot>(*frame.message))
        checkSnapshot(std::get<Snapshot>(*frame.message));
}

struct Sample {
    QString name;
    QByteArray bytes;
};

QList<Sample> g_samples;

quint64 seedFromEnvironment()
{
    bool ok = false;
    const quint64 seed = qEnvironmentVariable("TIDEWATCH_FUZZ_SEED").toULongLong(&ok, 0);
    return ok ? seed : kDefaultSeed;
}

} // namespace

void TestDecodeFuzz::initTestCase()
{
    const QByteArray snapshot = Fixture::sample(u"snapshot-busy.json"_s);
    const QByteArray status = Fixture::sample(u"local-status-full.json"_s);
    g_samples = {{u"snapshot-busy"_s, snapshot}, {u"local-status-full"_s, status}};

    // Feed-like frames built from the sample's own records.
    const QJsonObject busy = QJsonDocument::fromJson(snapshot).object();
    auto frame = [](const char* type, const QJsonValue& value) {
        return QJsonDocument(QJsonObject{{u"t"_s, QString::fromLatin1(type)}, {QString::fromLatin1(type), value}})
            .toJson(QJsonDocument::Compact);
    };
    for (const QJsonValue& session : busy.value(u"sessions"_s).toArray())
        g_samples.append({u"session frame"_s, frame("session", session)});
    for (const QJsonValue& approval : busy.value(u"approvals"_s).toArray())
        g_samples.append({u"approval frame"_s, frame("approval", approval)});
    g_samples.append({u"account frame"_s, frame("account", busy.value(u"account"_s))});
    g_samples.append({u"usage frame"_s, frame("usage", busy.value(u"usage"_s))});
    g_samples.append({u"awake frame"_s, frame("awake", busy.value(u"mac"_s).toObject().value(u"awake"_s))});
    g_samples.append({u"snapshot frame"_s, frame("snapshot", busy)});

    QVERIFY(decodeDocument<Snapshot>(snapshot) && decodeDocument<LocalStatus>(status));

    for (const int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(sig, onCrash);
}

void TestDecodeFuzz::mutations()
{
    const quint64 seed = seedFromEnvironment();
    bool onlyOne = false;
    const int only = qEnvironmentVariableIntValue("TIDEWATCH_FUZZ_CASE", &onlyOne);
    const int asked = qEnvironmentVariableIntValue("TIDEWATCH_FUZZ_ROUNDS");
    const int cases = asked > 0 ? asked : kDefaultRounds;
    int parsedAfterwards = 0;

    for (int index = onlyOne ? only : 0; index < (onlyOne ? only + 1 : cases); ++index) {
        std::snprintf(g_crashNote, sizeof g_crashNote, "Crashed in TIDEWATCH_FUZZ_SEED=0x%llx TIDEWATCH_FUZZ_CASE=%d\n",
            (unsigned long long)seed, index);
        Rng rng(seed ^ (quint64(index) * 0x9e3779b97f4a7c15ull));
        const Sample& sample = g_samples[rng.below(int(g_samples.size()))];
        QByteArray bytes;
        if (rng.chance(0.55)) {
            QJsonValue tree = *Lenient::parseRoot(sample.bytes);
            for (int edits = 1 + rng.below(3); edits > 0; --edits)
                tree = mutateTree(tree, rng);
            bytes = serialise(tree);
        } else {
            bytes = mutateBytes(sample.bytes, rng);
        }
        QString failure;
        try {
            decodeEverything(bytes);
        } catch (const std::exception& error) {
            failure = QString::fromUtf8(error.what());
        } catch (...) {
            failure = u"an exception"_s;
        }
        if (!failure.isEmpty())
            QFAIL(qPrintable(u"%1 on %2; replay with TIDEWATCH_FUZZ_SEED=0x%3 TIDEWATCH_FUZZ_CASE=%4"_s.arg(
                failure, sample.name, QString::number(seed, 16), QString::number(index))));
        if (Lenient::parseRoot(bytes))
            ++parsedAfterwards;
    }
    std::snprintf(g_crashNote, sizeof g_crashNote, "no case running\n");
    // A fuzzer whose mutations never parse tests only the parser.
    if (!onlyOne) {
        qInfo("seed 0x%llx: %d cases, %d of them still JSON", (unsigned long long)seed, cases, parsedAfterwards);
        QVERIFY(parsedAfterwards > cases / 3);
    }
}

QTEST_GUILESS_MAIN(TestDecodeFuzz)
#include "TestDecodeFuzz.moc"
