#pragma once

#include "ScratchFolder.h"
#include "StaticSite.h"

#include <QString>

#include <memory>

/// A Node.js distribution site on loopback whose one release is real: the
/// project's pinned Node.js binary, with the machine's npm beside it, packed
/// as the site packs a release, listed in an index and a checksum list. So a
/// service installed from it really runs on what was downloaded. The archive
/// is made once per build and kept; each site has its own index and list, so
/// a test can spoil them.
class NodeSite
{
public:
    explicit NodeSite(const ScratchFolder& scratch);

    /// False, with the reason in problem(), when the archive couldn't be made.
    bool isValid() const { return m_problem.isEmpty(); }
    QString problem() const { return m_problem; }

    QUrl base() const { return m_server->base(); }
    /// "v22.23.3": the pinned Node.js.
    const QString& version() const { return m_version; }
    /// The site's path of the archive, "/dist/<version>/<file>".
    QString archivePath() const;

    /// The faults on demand.
    void answer404ForArchive();
    void tamperWithArchive();

private:
    QString releaseFolder() const;

    QString m_root;
    QString m_version;
    QString m_file;
    QString m_problem;
    std::unique_ptr<StaticSite> m_server;
};
