#include "GoldenTest.h"

#include "Golden.h"

#include <QCoreApplication>
#include <QTest>

GoldenTest::GoldenTest(QStringList files, Render render)
    : m_files(std::move(files))
    , m_render(std::move(render))
{
}

int GoldenTest::main(int argc, char** argv, const QStringList& files, const Render& render)
{
    QCoreApplication app(argc, argv);
    GoldenTest test(files, render);
    return QTest::qExec(&test, argc, argv);
}

void GoldenTest::words_data()
{
    Golden::addRows(m_files);
}

void GoldenTest::words()
{
    QFETCH(QString, section);
    QFETCH(QString, input);
    QTEST(m_render(section, Golden::parts(input)).trimmed(), "expected");
}
