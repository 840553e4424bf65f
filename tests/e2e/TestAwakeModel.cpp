#include "model/AppModel.h"

#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QSignalSpy>
#include <QTest>

/// Stay awake changed from the model, against the real service.
class TestAwakeModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void aChoiceShowsUntilTheServiceAnswers();
    void aRefusalSaysWhatDidntChange_data();
    void aRefusalSaysWhatDidntChange();

private:
    std::optional<Awake> awake() const
    {
        const auto& snapshot = m_model->snapshot();
        return snapshot && snapshot->mac ? snapshot->mac->awake : std::nullopt;
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
    std::unique_ptr<AppModel> m_model;
};

void TestAwakeModel::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_service = std::make_unique<ServiceProcess>(m_scratch->path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    m_model = std::make_unique<AppModel>(m_service->environment(), Clock::system());
    m_model->setClaudeLook([] { return true; });
    m_model->start();
    QTRY_VERIFY_WITH_TIMEOUT(m_model->feedLive() && awake(), 15000);
}

void TestAwakeModel::cleanup()
{
    m_model.reset();
    m_service.reset();
    m_scratch.reset();
}

void TestAwakeModel::aChoiceShowsUntilTheServiceAnswers()
{
    QSignalSpy choice(m_model.get(), &AppModel::awakeChoiceChanged);
    m_model->setAwake(Awake::Mode::Off);
    QCOMPARE(m_model->awakeChoice(), std::optional(Awake::Mode::Off));
    QTRY_COMPARE_WITH_TIMEOUT(awake()->mode, Awake::Mode::Off, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(!m_model->awakeChoice(), 5000);
    QCOMPARE(choice.size(), 2);

    m_model->setMinBattery(25);
    QTRY_COMPARE_WITH_TIMEOUT(awake()->minBattery, 25, 5000);
    QVERIFY(m_model->noteText().isEmpty());
}

void TestAwakeModel::aRefusalSaysWhatDidntChange_data()
{
    QTest::addColumn<int>("act");
    QTest::addColumn<QString>("opening");

    QTest::newRow("a battery level out of range") << 0 << "Couldn’t change the battery level. ";
    QTest::newRow("more time while none is offered") << 1 << "Couldn’t extend Backpack. ";
}

void TestAwakeModel::aRefusalSaysWhatDidntChange()
{
    QFETCH(int, act);
    QFETCH(QString, opening);
    const Awake before = *awake();
    if (act == 0)
        m_model->setMinBattery(99);
    else
        m_model->extendBackpack();
    QTRY_VERIFY_WITH_TIMEOUT(!m_model->noteText().isEmpty(), 5000);
    QVERIFY2(m_model->noteText().startsWith(opening) && m_model->noteText().size() > opening.size(),
        qPrintable(m_model->noteText()));
    QCOMPARE(*awake(), before);
}

QTEST_GUILESS_MAIN(TestAwakeModel)
#include "TestAwakeModel.moc"
