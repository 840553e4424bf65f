#pragma once

#include <QObject>
#include <QStringList>

#include <functional>

/// One table-driven test over golden files: every case of the files is a row,
/// and passes when what `render` gives for its section and input is its words.
class GoldenTest : public QObject
{
    Q_OBJECT

public:
    /// What a module says for a case: its section and the input's parts.
    using Render = std::function<QString(const QString& section, const QStringList& input)>;

    GoldenTest(QStringList files, Render render);

    /// A test program's whole main: the cases of `files` and nothing else.
    static int main(int argc, char** argv, const QStringList& files, const Render& render);

private Q_SLOTS:
    void words_data();
    void words();

private:
    QStringList m_files;
    Render m_render;
};
