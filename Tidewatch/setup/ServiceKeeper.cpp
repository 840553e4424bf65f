#include "setup/ServiceKeeper.h"

#include "setup/LoginItem.h"
#include "setup/Uninstaller.h"

#include <QThread>

#include <memory>

ServiceKeeper::ServiceKeeper(QObject* parent)
    : ServiceKeeper([] { return ServiceInstaller(); }, parent)
{
}

ServiceKeeper::ServiceKeeper(Build build, QObject* parent)
    : QObject(parent)
    , m_build(std::move(build))
{
}

ServiceKeeper::~ServiceKeeper()
{
    if (m_thread)
        m_thread->wait();
}

// work runs on the worker and gives what is to run on the main thread once
// the worker is done, so that busy() is false again by then.
void ServiceKeeper::start(std::function<std::function<void()>()> work)
{
    auto ending = std::make_shared<std::function<void()>>();
    m_thread = QThread::create([work = std::move(work), ending] { *ending = work(); });
    connect(m_thread, &QThread::finished, this, [this, ending] {
        m_thread->deleteLater();
        m_thread = nullptr;
        if (*ending)
            (*ending)();
    });
    m_thread->start();
}

bool ServiceKeeper::repair(
    std::function<void(const ServiceInstaller::Progress&)> progress, std::function<void(Note)> done)
{
    if (busy())
        return false;
    start([this, progress = std::move(progress), done = std::move(done)]() -> std::function<void()> {
        ServiceInstaller installer = m_build();
        if (const Note refused = installer.refusal())
            return [done, refused] { done(refused); };
        const Outcome<Health> installed
            = installer.installAll([this, progress](const ServiceInstaller::Progress& step) {
                  QMetaObject::invokeMethod(
                      this, [progress, step] { progress(step); }, Qt::QueuedConnection);
              });
        const Note note = installed.ok() ? Note() : Note(repairOpening + installed.sentence());
        return [done, note] { done(note); };
    });
    return true;
}

bool ServiceKeeper::update(std::function<void(Note, bool)> done)
{
    if (busy())
        return false;
    start([this, done = std::move(done)]() -> std::function<void()> {
        ServiceInstaller installer = m_build();
        if (const Note refused = installer.refusal())
            return [done, refused] { done(refused, false); };
        const Outcome<Health> installed = installer.installAll([](const ServiceInstaller::Progress&) {});
        if (!installed.ok()) {
            const Note note = updateOpening + installed.sentence();
            return [done, note] { done(note, false); };
        }
        const bool loginItem = LoginItem::isEnabled(installer.environment());
        return [done, loginItem] { done(std::nullopt, loginItem); };
    });
    return true;
}

bool ServiceKeeper::restart(std::function<void(Note)> done)
{
    if (busy())
        return false;
    start([this, done = std::move(done)]() -> std::function<void()> {
        ServiceInstaller installer = m_build();
        if (const Note refused = installer.refusal())
            return [done, refused] { done(refused); };
        // A manager that had let go of the job takes it anew; if that fails
        // too, the wait below simply finds nothing and the next read says so.
        if (!installer.restart())
            installer.start();
        installer.pollHealth(restartHealthLimit);
        return [done] { done(std::nullopt); };
    });
    return true;
}

bool ServiceKeeper::uninstall(bool deleteData, std::function<void(QStringList)> done)
{
    if (busy())
        return false;
    start([this, deleteData, done = std::move(done)]() -> std::function<void()> {
        const QStringList notes = Uninstaller(m_build(), true).run(deleteData);
        return [done, notes] { done(notes); };
    });
    return true;
}
