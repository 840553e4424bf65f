// The relay's keeping of the output's end: whatever the appends, the parts
// read oldest first are exactly the last 64 KiB of everything appended.

#include "OutputTail.h"

#include <QTest>

#include <string>
#include <vector>

using term::OutputTail;

class TestOutputTail : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keepsTheEnd_data();
    void keepsTheEnd();
};

void TestOutputTail::keepsTheEnd_data()
{
    QTest::addColumn<std::vector<int>>("appends");
    constexpr int ring = int(OutputTail::kBytes);
    QTest::newRow("nothing yet") << std::vector<int>{};
    QTest::newRow("less than it holds") << std::vector<int>{10, 4000};
    QTest::newRow("exactly full") << std::vector<int>{ring - 100, 100};
    QTest::newRow("wrapped round mid-append") << std::vector<int>{ring - 100, 4096, 300};
    QTest::newRow("one append as large as it") << std::vector<int>{500, ring, 7};
    QTest::newRow("one append larger than it") << std::vector<int>{500, 3 * ring + 11};
    QTest::newRow("many reads of a flood") << std::vector<int>(100, 4095);
}

void TestOutputTail::keepsTheEnd()
{
    QFETCH(std::vector<int>, appends);
    OutputTail tail;
    std::string all;
    for (const int size : appends) {
        std::string bytes;
        // Every byte tells where it was in the whole, so a misplaced one shows.
        for (int i = 0; i < size; ++i)
            bytes.push_back(char('a' + (all.size() + bytes.size()) % 23));
        all += bytes;
        tail.append(bytes);
    }
    const auto [older, newer] = tail.parts();
    const std::string kept = std::string(older) + std::string(newer);
    QCOMPARE(kept, all.substr(all.size() > OutputTail::kBytes ? all.size() - OutputTail::kBytes : 0));
}

QTEST_APPLESS_MAIN(TestOutputTail)
#include "TestOutputTail.moc"
