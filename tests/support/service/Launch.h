#pragma once

#include "ScratchFolder.h"

#include <QHash>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

/// How a run of the built program ended: its exit code (-1 when it ran out of
/// time) and everything it printed, both streams together.
struct LaunchResult {
    int code = -1;
    QString output;
};

/// The environment of a launch: no TIDEWATCH_ variable of the caller leaks
/// in, and every user folder the program might reach is inside the scratch folder.
QProcessEnvironment launchEnvironment(const ScratchFolder& scratch, const QHash<QString, QString>& extra = {});

/// The lines of a text file that aren't empty; none when it can't be read.
QStringList textLines(const QString& path);

/// Runs the built program (or another) to its end while this thread's event loop goes on.
LaunchResult launch(const QStringList& arguments, const QProcessEnvironment& environment, int limitMs = 30000,
    const QString& program = {});
