#include "link/Session.h"

using namespace Qt::StringLiterals;

std::optional<Resume> Resume::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Resume resume;
    resume.state = fields->string("state"_L1);
    resume.at = fields->date("at"_L1);
    resume.by = fields->string("by"_L1);
    resume.canCancel = fields->boolean("canCancel"_L1);
    resume.canArm = fields->boolean("canArm"_L1);
    resume.why = fields->string("why"_L1);
    return resume;
}

std::optional<AutomationRef> AutomationRef::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    AutomationRef ref;
    ref.id = fields->string("id"_L1);
    ref.name = fields->string("name"_L1);
    ref.runId = fields->string("runId"_L1);
    return ref;
}

std::optional<Session::TermLink> Session::TermLink::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    if (!id)
        return std::nullopt;
    TermLink term;
    term.id = std::move(*id);
    term.mac = fields->integer("mac"_L1);
    term.phone = fields->integer("phone"_L1);
    return term;
}

std::optional<Session::Blocked> Session::Blocked::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Blocked blocked;
    blocked.kind = fields->string("kind"_L1);
    blocked.text = fields->string("text"_L1);
    blocked.resetsAt = fields->date("resetsAt"_L1);
    blocked.autoResumeAt = fields->date("autoResumeAt"_L1);
    blocked.resume = fields->record<Resume>("resume"_L1);
    return blocked;
}

std::optional<Session> Session::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    if (!id)
        return std::nullopt;
    Session session;
    session.id = std::move(*id);
    session.title = fields->string("title"_L1);
    session.cwd = fields->string("cwd"_L1);
    session.projectName = fields->string("projectName"_L1);
    session.origin = fields->string("origin"_L1);
    session.state = fields->string("state"_L1);
    session.providerId = fields->string("providerId"_L1);
    session.model = fields->string("model"_L1);
    session.permissionMode = fields->string("permissionMode"_L1);
    session.createdAt = fields->date("createdAt"_L1);
    session.lastActivityAt = fields->date("lastActivityAt"_L1);
    session.activity = fields->string("activity"_L1);
    session.lastText = fields->string("lastText"_L1);
    session.queued = fields->integer("queued"_L1);
    session.pendingApprovalIds = fields->strings("pendingApprovalIds"_L1);
    session.stoppedForAway = fields->boolean("stoppedForAway"_L1);
    session.term = fields->record<TermLink>("term"_L1);
    session.agentsRunning = fields->integer("agentsRunning"_L1);
    session.blocked = fields->record<Blocked>("blocked"_L1);
    session.automation = fields->record<AutomationRef>("automation"_L1);
    session.agent = fields->string("agent"_L1);
    session.switchedFrom = fields->string("switchedFrom"_L1);
    session.switchedTo = fields->string("switchedTo"_L1);
    return session;
}
