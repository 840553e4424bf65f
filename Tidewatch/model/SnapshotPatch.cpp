#include "model/SnapshotPatch.h"

#include <algorithm>
#include <utility>

namespace SnapshotPatch {

namespace {

template <class... Cases> struct Overloaded : Cases... {
    using Cases::operator()...;
};
// Spelled out for compilers without C++20's deduction for aggregates (clang before 17).
template <class... Cases> Overloaded(Cases...) -> Overloaded<Cases...>;

template <class T> bool replace(T& field, const T& value)
{
    if (field == value)
        return false;
    field = value;
    return true;
}

template <class T> qsizetype indexOf(const QList<T>& items, const QString& id)
{
    const auto found = std::find_if(items.cbegin(), items.cend(), [&id](const T& item) { return item.id == id; });
    return found == items.cend() ? -1 : qsizetype(found - items.cbegin());
}

// The element with that id is replaced where it stands, so the service's
// order holds; a new one goes last, as the service adds it.
template <class T> bool upsert(FlexList<T>& list, const T& item)
{
    const qsizetype index = indexOf(list.items, item.id);
    if (index < 0) {
        list.items.append(item);
        list.count = std::max(list.count + 1, qint64(list.items.size()));
        return true;
    }
    if (std::as_const(list.items).at(index) == item)
        return false;
    list.items[index] = item;
    return true;
}

template <class T> bool remove(FlexList<T>& list, const QString& id)
{
    const qsizetype index = indexOf(list.items, id);
    if (index < 0)
        return false;
    list.items.removeAt(index);
    list.count = std::max(list.count - 1, qint64(list.items.size()));
    return true;
}

// The Mac's parts arrive one at a time; a snapshot without a `mac` gets one.
template <class T>
bool setOnMac(Snapshot& snapshot, std::optional<T> Snapshot::Mac::*field, const std::optional<T>& value)
{
    if (!snapshot.mac) {
        if (!value)
            return false;
        snapshot.mac.emplace();
    }
    return replace((*snapshot.mac).*field, value);
}

} // namespace

bool apply(std::optional<Snapshot>& snapshot, const Feed::Message& message)
{
    if (const Snapshot* whole = std::get_if<Snapshot>(&message)) {
        if (snapshot == *whole)
            return false;
        snapshot = *whole;
        return true;
    }
    if (!snapshot)
        return false;
    Snapshot& held = *snapshot;
    return std::visit(
        Overloaded{
            [](const Snapshot&) { return false; },
            [&held](const Session& session) { return upsert(held.sessions, session); },
            [&held](const Approval& approval) { return upsert(held.approvals, approval); },
            [&held](const Feed::Resolved& resolved) { return remove(held.approvals, resolved.id); },
            [&held](const Usage& usage) { return replace(held.usage, std::optional<Usage>(usage)); },
            [&held](const Account& account) { return replace(held.account, std::optional<Account>(account)); },
            [&held](
                const Feed::BatteryChange& change) { return setOnMac(held, &Snapshot::Mac::battery, change.battery); },
            [&held](const Awake& awake) { return setOnMac(held, &Snapshot::Mac::awake, std::optional<Awake>(awake)); },
            [](const GuideState&) { return false; },
            [](const Feed::GuideShow&) { return false; },
            [](const SttState&) { return false; },
            [&held](const Feed::ProvidersChange& change) {
                FlexList<Provider> providers{change.providers, qint64(change.providers.size())};
                return replace(held.providers, providers);
            },
            [&held](const Feed::CodexChange& change) { return replace(held.codex, change.codex); },
            [](const Feed::DevicesChanged&) { return false; },
        },
        message);
}

bool touchesApprovals(const Feed::Message& message)
{
    return std::holds_alternative<Snapshot>(message) || std::holds_alternative<Approval>(message)
        || std::holds_alternative<Feed::Resolved>(message);
}

QString typeName(const Feed::Message& message)
{
    return std::visit(Overloaded{
                          [](const Snapshot&) { return QStringLiteral("snapshot"); },
                          [](const Session&) { return QStringLiteral("session"); },
                          [](const Approval&) { return QStringLiteral("approval"); },
                          [](const Feed::Resolved&) { return QStringLiteral("approval.resolved"); },
                          [](const Usage&) { return QStringLiteral("usage"); },
                          [](const Account&) { return QStringLiteral("account"); },
                          [](const Feed::BatteryChange&) { return QStringLiteral("battery"); },
                          [](const Awake&) { return QStringLiteral("awake"); },
                          [](const GuideState&) { return QStringLiteral("guide"); },
                          [](const Feed::GuideShow&) { return QStringLiteral("guide.show"); },
                          [](const SttState&) { return QStringLiteral("stt"); },
                          [](const Feed::ProvidersChange&) { return QStringLiteral("providers"); },
                          [](const Feed::CodexChange&) { return QStringLiteral("codex"); },
                          [](const Feed::DevicesChanged&) { return QStringLiteral("devices"); },
                      },
        message);
}

} // namespace SnapshotPatch
