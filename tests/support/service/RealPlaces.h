#pragma once

#include <QCoreApplication>
#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>

/// The real install's places in the user's own home (support and log
/// folders, the unit file and its folder, the autostart entry, Claude Code's
/// settings), as they stand when this is made: an end-to-end run must leave
/// every one as it found it.
class RealPlaces
{
public:
    RealPlaces();
    /// The places that changed since, one line each; empty when none did.
    QStringList changed() const;

private:
    struct Place {
        QString path;
        bool exists = false;
        QDateTime modified;
    };
    static QList<Place> look();

    QList<Place> m_before;
};

/// Runs an end-to-end suite and then checks the real places: a change fails
/// the run however the suite itself went.
int runEndToEnd(QObject& suite, int argc, char** argv);

/// main() of an end-to-end suite, with the application it needs.
#define TIDEWATCH_E2E_MAIN_WITH(Application, Suite)                                                                    \
    int main(int argc, char** argv)                                                                                    \
    {                                                                                                                  \
        Application application(argc, argv);                                                                           \
        Suite suite;                                                                                                   \
        return runEndToEnd(suite, argc, argv);                                                                         \
    }
#define TIDEWATCH_E2E_MAIN(Suite) TIDEWATCH_E2E_MAIN_WITH(QCoreApplication, Suite)
