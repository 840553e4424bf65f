#pragma once

#include "surface/words/Palette.h"

#include <QString>
#include <QStringList>

/// Exact sentences kept in text files under tests/data/words, one case a line:
///
///     [section]
///     case name | input → expected words
///
/// Lines starting with # and blank lines are skipped; "\n" in the words stands
/// for a line break. The test builds each case's input and says what it gives;
/// the file holds what it must give.
namespace Golden {

struct Row {
    QString section;
    QString name;
    QString input;
    QString expected;
};

/// Every case of a file; a missing file or a line that doesn't read stops the run.
QList<Row> read(const QString& file);

/// Adds the columns "section", "input" and "expected" and one row per case,
/// named "section: case name", to the running `_data()` function, from each file.
void addRows(const QStringList& files);

/// The words of the case with this section and input, one entry a line; a
/// missing case stops the run.
QStringList lines(const QString& file, const QString& section, const QString& input);

/// True when `run` stands line after line somewhere in `twin`.
bool containsRun(const QStringList& twin, const QStringList& run);

/// The input's parts between semicolons outside JSON, trimmed.
QStringList parts(const QString& input);

/// The ink by its name in the enum, lower case: "amber", "dimGreen".
QString inkName(Ink ink);

} // namespace Golden
