#include "workflows/WorkflowWords.h"

#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace WorkflowWords {

namespace {

bool isLineEnd(QChar c)
{
    const char16_t u = c.unicode();
    return u == 0x0A || u == 0x0B || u == 0x0C || u == 0x0D || u == 0x85 || u == 0x2028 || u == 0x2029;
}

QString trimEnd(QString text, QStringView characters)
{
    qsizetype end = text.size();
    while (end > 0 && characters.contains(text.at(end - 1)))
        --end;
    text.truncate(end);
    return text;
}

QString trimSpaces(const QString& text)
{
    qsizetype start = 0;
    while (start < text.size() && text.at(start) == u' ')
        ++start;
    return trimEnd(text.mid(start), u" ");
}

// Where the first `max` characters end, counted as a reader sees them, so an
// emoji or an accented letter is never split.
qsizetype endOfCharacters(const QString& text, qsizetype max, bool* fits)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    qsizetype position = 0;
    while (count < max) {
        const qsizetype next = finder.toNextBoundary();
        if (next < 0) {
            *fits = true;
            return text.size();
        }
        position = next;
        ++count;
    }
    *fits = finder.toNextBoundary() < 0;
    return position;
}

} // namespace

QString clip(const QString& text, qsizetype max)
{
    QStringList lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i == text.size() || isLineEnd(text.at(i))) {
            if (i > start)
                lines.append(text.mid(start, i - start));
            start = i + 1;
        }
    }
    const QString joined = trimSpaces(lines.join(u' '));
    bool fits = false;
    const qsizetype end = endOfCharacters(joined, std::max<qsizetype>(0, max), &fits);
    if (fits)
        return joined;
    QString cut = joined.left(end);
    const qsizetype space = cut.lastIndexOf(u' ');
    if (space >= 0)
        cut.truncate(space);
    return trimEnd(cut, u",.:; ") + u'…';
}

std::optional<QString> countdown(const WFAskItem& ask, const QDateTime& now)
{
    if (ask.defaultAnswer.trimmed().isEmpty())
        return std::nullopt;
    const double left = std::max(0.0, double(ask.until.msecsSinceEpoch - now.toMSecsSinceEpoch()) / 1000.0);
    const QString time
        = left >= 120 ? u"%1m"_s.arg(qint64(std::ceil(left / 60))) : u"%1s"_s.arg(qint64(std::ceil(left)));
    return u"%1 in %2"_s.arg(ask.defaultAnswer.trimmed(), time);
}

} // namespace WorkflowWords
