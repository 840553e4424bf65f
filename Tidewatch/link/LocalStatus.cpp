#include "link/LocalStatus.h"

using namespace Qt::StringLiterals;

std::optional<TailscaleStatus> TailscaleStatus::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    TailscaleStatus status;
    status.installed = fields->boolean("installed"_L1);
    status.running = fields->boolean("running"_L1);
    status.loggedIn = fields->boolean("loggedIn"_L1);
    status.cliPath = fields->string("cliPath"_L1);
    status.dnsName = fields->string("dnsName"_L1);
    status.ip = fields->string("ip"_L1);
    status.httpsEnabled = fields->boolean("httpsEnabled"_L1);
    status.serveOn = fields->boolean("serveOn"_L1);
    status.url = fields->string("url"_L1);
    status.keyExpiry = fields->date("keyExpiry"_L1);
    return status;
}

std::optional<TsnetStatus::Helper> TsnetStatus::Helper::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Helper helper;
    helper.state = fields->string("state"_L1);
    helper.loginUrl = fields->string("loginUrl"_L1);
    helper.dnsName = fields->string("dnsName"_L1);
    helper.account = fields->string("account"_L1);
    helper.listening = fields->string("listening"_L1);
    helper.tls = fields->string("tls"_L1);
    helper.error = fields->string("error"_L1);
    return helper;
}

std::optional<TsnetStatus> TsnetStatus::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    TsnetStatus status;
    status.mode = fields->string("mode"_L1);
    status.reason = fields->string("reason"_L1);
    status.available = fields->boolean("available"_L1);
    status.enabled = fields->boolean("enabled"_L1);
    status.helper = fields->record<Helper>("helper"_L1);
    status.url = fields->string("url"_L1);
    status.controlUrl = fields->string("controlUrl"_L1);
    return status;
}

std::optional<LocalStatus::Claude> LocalStatus::Claude::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Claude claude;
    claude.path = fields->string("path"_L1);
    claude.version = fields->string("version"_L1);
    return claude;
}

std::optional<LocalStatus::Name> LocalStatus::Name::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Name name;
    name.host = fields->string("host"_L1);
    name.inUse = fields->boolean("inUse"_L1);
    name.reason = fields->string("reason"_L1);
    name.setting = fields->boolean("setting"_L1);
    name.terms = fields->string("terms"_L1);
    name.termsShown = fields->boolean("termsShown"_L1);
    return name;
}

std::optional<LocalStatus::Apk> LocalStatus::Apk::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Apk apk;
    apk.sha256 = fields->string("sha256"_L1);
    apk.versionName = fields->string("versionName"_L1);
    apk.size = fields->integer("size"_L1);
    return apk;
}

std::optional<LocalStatus::Hooks> LocalStatus::Hooks::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return Hooks{fields->boolean("installed"_L1)};
}

std::optional<LocalStatus::StatusLine> LocalStatus::StatusLine::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return StatusLine{fields->boolean("installed"_L1), fields->boolean("supported"_L1)};
}

std::optional<LocalStatus::Shell> LocalStatus::Shell::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return Shell{fields->boolean("installed"_L1), fields->boolean("supported"_L1)};
}

std::optional<LocalStatus::Files> LocalStatus::Files::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return Files{fields->boolean("browseOutsideProjects"_L1)};
}

std::optional<LocalStatus::Lan> LocalStatus::Lan::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Lan lan;
    lan.port = fields->integer("port"_L1);
    lan.addresses = fields->strings("addresses"_L1);
    lan.fingerprint = fields->string("fingerprint"_L1);
    return lan;
}

std::optional<LocalStatus> LocalStatus::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    LocalStatus status;
    status.daemonVersion = fields->string("daemonVersion"_L1);
    status.apiPort = fields->integer("apiPort"_L1);
    status.claude = fields->record<Claude>("claude"_L1);
    status.tailscale = fields->record<TailscaleStatus>("tailscale"_L1);
    status.tsnet = fields->record<TsnetStatus>("tsnet"_L1);
    status.downloadUrl = fields->string("downloadUrl"_L1);
    status.downloadLocal = fields->boolean("downloadLocal"_L1);
    status.downloadTrusted = fields->boolean("downloadTrusted"_L1);
    status.downloadAnywhere = fields->string("downloadAnywhere"_L1);
    status.name = fields->record<Name>("name"_L1);
    status.apk = fields->record<Apk>("apk"_L1);
    status.hooks = fields->record<Hooks>("hooks"_L1);
    status.statusLine = fields->record<StatusLine>("statusLine"_L1);
    status.shell = fields->record<Shell>("shell"_L1);
    status.devices = fields->list<Device>("devices"_L1);
    status.sessions = fields->list<Session>("sessions"_L1);
    status.approvals = fields->list<Approval>("approvals"_L1);
    status.connectedClients = fields->integer("connectedClients"_L1);
    status.usage = fields->record<Usage>("usage"_L1);
    status.projectsRoot = fields->string("projectsRoot"_L1);
    status.files = fields->record<Files>("files"_L1);
    status.account = fields->record<Account>("account"_L1);
    status.automations = fields->record<AutomationsStatus>("automations"_L1);
    status.lan = fields->record<Lan>("lan"_L1);
    status.codex = fields->record<Codex>("codex"_L1);
    return status;
}
