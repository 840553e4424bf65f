#include "Golden.h"

#include <QFile>
#include <QTest>

namespace Golden {

namespace {

[[noreturn]] void unreadable(const QString& file, int line, const char* why)
{
    qFatal("%s:%d: %s", qPrintable(file), line, why);
}

} // namespace

QList<Row> read(const QString& file)
{
    QFile in(QStringLiteral(TIDEWATCH_TEST_DATA "/words/") + file);
    if (!in.open(QIODevice::ReadOnly | QIODevice::Text))
        unreadable(file, 0, "no such golden file");
    QList<Row> rows;
    QString section;
    int number = 0;
    const QStringList lines = QString::fromUtf8(in.readAll()).split(QLatin1Char('\n'));
    for (const QString& raw : lines) {
        ++number;
        const QString line = raw.trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2);
            continue;
        }
        const qsizetype bar = line.indexOf(QStringLiteral(" | "));
        const qsizetype arrow = line.indexOf(QStringLiteral(" →"), bar + 1);
        if (section.isEmpty() || bar < 0 || arrow < 0)
            unreadable(file, number, "a case reads: name | input → words, under a [section]");
        QString expected = line.mid(arrow + 2).trimmed();
        expected.replace(QStringLiteral("\\n"), QStringLiteral("\n"));
        const QString input = arrow > bar + 3 ? line.mid(bar + 3, arrow - bar - 3).trimmed() : QString();
        rows.append({section, line.left(bar).trimmed(), input, expected});
    }
    if (rows.isEmpty())
        unreadable(file, number, "no cases");
    return rows;
}

void addRows(const QStringList& files)
{
    QTest::addColumn<QString>("section");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const QString& file : files) {
        for (const Row& row : read(file))
            QTest::newRow(qPrintable(row.section + QStringLiteral(": ") + row.name))
                << row.section << row.input << row.expected;
    }
}

QStringList lines(const QString& file, const QString& section, const QString& input)
{
    for (const Row& row : read(file)) {
        if (row.section == section && row.input == input)
            return row.expected.split(QLatin1Char('\n'));
    }
    qFatal("%s: no case %s / %s", qPrintable(file), qPrintable(section), qPrintable(input));
}

bool containsRun(const QStringList& twin, const QStringList& run)
{
    for (qsizetype at = twin.indexOf(run.first()); at >= 0; at = twin.indexOf(run.first(), at + 1)) {
        if (twin.mid(at, run.size()) == run)
            return true;
    }
    return false;
}

QStringList parts(const QString& input)
{
    QStringList split{QString()};
    int depth = 0;
    bool quoted = false;
    for (qsizetype i = 0; i < input.size(); ++i) {
        const QChar c = input.at(i);
        if (quoted && c == QLatin1Char('\\') && i + 1 < input.size()) {
            split.last() += c;
            split.last() += input.at(++i);
            continue;
        }
        if (c == QLatin1Char('"'))
            quoted = !quoted;
        else if (!quoted && (c == QLatin1Char('{') || c == QLatin1Char('[')))
            ++depth;
        else if (!quoted && (c == QLatin1Char('}') || c == QLatin1Char(']')))
            --depth;
        if (c == QLatin1Char(';') && depth == 0 && !quoted)
            split.append(QString());
        else
            split.last() += c;
    }
    for (QString& part : split)
        part = part.trimmed();
    return split;
}

QString inkName(Ink ink)
{
    static const QStringList names{QStringLiteral("text"), QStringLiteral("secondary"), QStringLiteral("muted"),
        QStringLiteral("faint"), QStringLiteral("track"), QStringLiteral("green"), QStringLiteral("lightGreen"),
        QStringLiteral("dimGreen"), QStringLiteral("amber"), QStringLiteral("red")};
    return names.at(int(ink));
}

} // namespace Golden
