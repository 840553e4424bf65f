#pragma once

#include <QString>
#include <QTemporaryDir>

/// A private folder for one test, removed with everything in it at the end.
class ScratchFolder
{
public:
    ScratchFolder();

    bool isValid() const { return m_folder.isValid(); }
    QString path() const { return m_folder.path(); }
    /// A path inside the folder; the parent folders of it are created.
    QString file(const QString& relative) const;
    /// Writes text to a file inside the folder and gives its path.
    QString write(const QString& relative, const QByteArray& contents, int mode = 0600) const;

private:
    QTemporaryDir m_folder;
};

/// A file's permission bits as stat gives them (07777), or -1 when it isn't there.
int fileMode(const QString& path);
