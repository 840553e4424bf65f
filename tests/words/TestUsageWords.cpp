#include "link/Account.h"
#include "link/Codex.h"
#include "link/Usage.h"
#include "surface/words/UsageSection.h"
#include "surface/words/UsageWords.h"

#include "Fixture.h"
#include "Golden.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

const QString kNone = u"—"_s;
const QLocale kUs(u"en_US"_s);

const QByteArray kBusy = R"({"fiveHour":{"pct":64,"resetsAt":"@10800"},"sevenDay":{"pct":100,"resetsAt":"@172800"},
          "models":[{"label":"Fable","pct":41,"resetsAt":"@259200"},{"label":"Sonnet","pct":3,"resetsAt":"@18000"}],
          "rate":{"fiveHour":0.8,"fiveHourEtaMs":2700000,"fiveHourLimitAt":"@2700"},"observedAt":"@-300")";

/// "busy", "stale" (busy, its numbers stale), "busy, probe failed [N s ago]", or the usage's JSON.
std::optional<Usage> usage(const QString& words)
{
    if (words.isEmpty())
        return std::nullopt;
    if (words.startsWith(u'{'))
        return Fixture::record<Usage>(words.toUtf8());
    QByteArray text = kBusy;
    if (words == u"stale"_s)
        text += R"(,"source":"stale")";
    if (words.contains(u"probe failed"_s)) {
        const QString ago = words.section(u"failed "_s, 1).section(u' ', 0, 0);
        text += R"(,"probe":{"ok":false)" + (ago.isEmpty() ? QByteArray() : R"(,"since":"@-)" + ago.toUtf8() + "\"")
            + "}";
    }
    return Fixture::record<Usage>(text + "}");
}

QString number(double value)
{
    return QString::number(qRound64(value * 1e6) / 1e6);
}

QString meters(const QList<Meter>& meters)
{
    QStringList said;
    for (const Meter& meter : meters) {
        const MeterLook look = MeterWords::look(meter.reading, now(), kUs);
        QString one = meter.key() + u": "_s + meter.reading.name;
        if (!look.tagText.isEmpty())
            one += u" ("_s + look.tagText + (look.limitGlyph ? u", limit)"_s : u")"_s);
        said << one + (meter.reading.pace ? u", paced"_s : QString());
    }
    return said.isEmpty() ? kNone : said.join(u" + "_s);
}

QString pace(const QStringList& in)
{
    const std::optional<FlexDate> reset
        = in.at(1).isEmpty() ? std::nullopt : std::optional<FlexDate>(Fixture::at(in.at(1).toDouble()));
    MeterReading reading
        = MeterReading::read(u"5-hour window"_s, UsageWindow{in.at(0).toDouble(), reset}, now(), false);
    MeterReading::Rate rate;
    rate.perMinute = in.at(2).toDouble();
    if (!in.at(3).isEmpty())
        rate.etaMs = in.at(3).toDouble();
    if (!in.at(4).isEmpty())
        rate.limitAt = Fixture::at(in.at(4).toDouble());
    rate.observedAt = Fixture::at(-in.at(5).toDouble());
    reading.applyPace(rate, now());
    if (!reading.projected)
        return kNone;
    QString said = number(*reading.projected) + u'%';
    if (reading.limitFirst != reading.limitIn.has_value())
        said += u", the limit half there"_s;
    if (reading.limitIn)
        said += u", limit in "_s + number(*reading.limitIn) + u" s"_s;
    return said;
}

QString look(const QStringList& in)
{
    MeterReading reading;
    if (!in.at(0).isEmpty())
        reading.used = in.at(0).toDouble();
    if (!in.value(1).isEmpty())
        reading.projected = in.at(1).toDouble();
    const MeterLook look = MeterWords::look(reading, now(), kUs);
    return look.percent + u" ("_s + Golden::inkName(look.percentInk) + u") | "_s + Golden::inkName(look.barInk)
        + u" | "_s + number(look.fill) + u" | "_s + (look.ghost ? number(*look.ghost) : kNone);
}

QString sentence(const QStringList& in)
{
    const QLocale locale(in.at(0));
    if (in.size() == 1)
        return MeterReading::read(u"W"_s, std::nullopt, now(), false).sentence(now(), locale) + u" |"_s;
    const std::optional<FlexDate> reset
        = in.value(2).isEmpty() ? std::nullopt : std::optional<FlexDate>(Fixture::at(in.at(2).toDouble()));
    MeterReading reading
        = MeterReading::read(u"W"_s, UsageWindow{in.at(1).toDouble(), reset}, now(), in.value(3) == u"weekday"_s);
    if (!in.value(4).isEmpty())
        reading.applyPace({in.at(4).toDouble(), std::nullopt, std::nullopt, std::nullopt}, now());
    return reading.sentence(now(), locale) + u" | "_s + MeterWords::look(reading, now(), locale).tagText;
}

/// "claude", "codex", "both" or "too old": which agents are here.
AgentsInUse agents(const QString& words)
{
    AgentsInUse agents;
    agents.claude = words == u"claude"_s || words == u"both"_s;
    agents.codexAvailable = words != u"claude"_s && words != u"too old"_s;
    agents.codexHere = words != u"claude"_s;
    agents.codexEnabled = agents.codexHere;
    return agents;
}

QString optional(const std::optional<QString>& words)
{
    return words.value_or(kNone);
}

QString keys(const QList<Meter>& meters)
{
    QStringList said;
    for (const Meter& meter : meters)
        said << meter.key();
    return said.isEmpty() ? kNone : said.join(u" + "_s);
}

/// The agents ; usage ; the account's state ; Codex → the section's parts, in order.
QString wholeSection(const QStringList& in)
{
    Account account;
    account.state = in.value(2);
    const std::optional<Usage> read = usage(in.value(1));
    const std::optional<Codex> codex
        = in.value(3).isEmpty() ? std::nullopt : std::optional<Codex>(Fixture::record<Codex>(in.value(3).toUtf8()));
    const UsageSection built
        = UsageSection::build({read, in.value(2).isEmpty() ? nullptr : &account, codex, agents(in.at(0)), now(), kUs});
    if (!built.shown)
        return u"not shown"_s;
    QStringList parts{optional(built.note)};
    if (built.claude)
        parts << optional(built.claudeLine) + u", "_s + keys(built.claudeMeters) + u", "_s + optional(built.probeLine);
    if (built.codex) {
        parts << (built.codexCard ? u"card "_s + built.codexCard->title
                                  : (built.codexLine ? u"line "_s + built.codexLine->spoken : kNone))
                + u", "_s + optional(built.codexLeadLine) + u", "_s + keys(built.codexMeters) + u", "_s
                + optional(built.codexLimitedLine);
    }
    return parts.join(u" | "_s);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"section"_s)
        return wholeSection(in);
    if (section == u"meters"_s)
        return meters(UsageWords::claudeMeters(usage(in.at(0)), now(), in.value(1) == u"brand"_s));
    if (section == u"limitSentence"_s)
        return UsageWords::claudeMeters(usage(in.at(0)), now(), false).first().reading.sentence(now(), kUs);
    if (section == u"pace"_s)
        return pace(in);
    if (section == u"stale"_s) {
        const double resetIn = in.at(0).toDouble();
        const MeterReading reading = MeterReading::read(u"w"_s, UsageWindow{87, Fixture::at(resetIn)}, now(), false);
        return number(*reading.used) + u"% | "_s
            + (reading.resetAt ? u"reset in "_s + number(*reading.resetIn) + u" s"_s : u"reset passed"_s) + u" | "_s
            + MeterWords::look(reading, now(), kUs).tagText;
    }
    if (section == u"look"_s)
        return look(in);
    if (section == u"sentence"_s)
        return sentence(in);
    if (section == u"claudeNotes"_s) {
        Account account;
        account.state = in.value(1);
        const Account* known = in.value(1).isEmpty() ? nullptr : &account;
        const Usage read = *usage(in.at(0));
        const std::optional<QString> line = UsageWords::staleLine(read, known);
        return UsageWords::claudeNote(read, known).value_or(kNone) + u" | "_s
            + (line ? *line : UsageWords::claudeWaitingLine(read).value_or(kNone));
    }
    if (section == u"probe"_s)
        return UsageWords::probeLine(*usage(in.at(0)), now(), QLocale(in.value(1, u"en_US"_s))).value_or(kNone);
    const Codex codex = Fixture::record<Codex>(in.at(0).toUtf8());
    if (section == u"codexMeters"_s) {
        const QList<Meter> shown = UsageWords::codexMeters(codex, now(), in.value(1) == u"brand"_s);
        return meters(shown) + u" | "_s + UsageWords::codexLimitedLine(codex, shown).value_or(kNone);
    }
    if (section == u"codexNotes"_s) {
        return UsageWords::codexAloneNote(codex, in.value(1) == u"card title"_s, now()).value_or(kNone) + u" | "_s
            + UsageWords::codexLeadLine(codex, true, now()).value_or(kNone) + u" | "_s
            + UsageWords::codexLeadLine(codex, false, now()).value_or(kNone);
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"usage-words.txt"_s}, render);
}
