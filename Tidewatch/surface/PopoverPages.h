#pragma once

#include "base/Clock.h"

#include <QObject>
#include <QString>
#include <QVariantMap>

class AppModel;
class DaemonClient;
class PopoverPairing;

/// Which of the panel's pages shows (main, pair, settings), and the pair
/// page's words. Opening the pair page starts its pairing; leaving it, or the
/// panel closing, stops it and withdraws the code on show.
class PopoverPages : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString current READ current NOTIFY currentChanged)
    Q_PROPERTY(QVariantMap pair READ pair NOTIFY pairChanged)
    Q_PROPERTY(QVariantMap words READ words CONSTANT)

public:
    static inline const QString kMain = QStringLiteral("main");
    static inline const QString kPair = QStringLiteral("pair");
    static inline const QString kSettings = QStringLiteral("settings");

    PopoverPages(AppModel& model, const Clock& clock, QObject* parent = nullptr);
    ~PopoverPages() override;

    const QString& current() const { return m_current; }
    const QVariantMap& pair() const { return m_pair; }
    /// The fixed words of the ways between pages.
    QVariantMap words() const;
    PopoverPairing& pairing() { return *m_pairing; }

    /// Shows a page by name; a page that can't show yet, or isn't one, changes nothing.
    Q_INVOKABLE void show(const QString& page);
    Q_INVOKABLE void back() { show(kMain); }
    /// From a paired phone, a fresh code for the next one.
    Q_INVOKABLE void pairAnother();
    Q_INVOKABLE void copyLink();
    Q_INVOKABLE void openDownload();

Q_SIGNALS:
    void currentChanged();
    void pairChanged();

private:
    void refreshPair();
    void onPaired();

    AppModel& m_model;
    /// Outlives the panel by the time a code's withdrawal takes; none in a sample.
    DaemonClient* m_client = nullptr;
    PopoverPairing* m_pairing;
    QString m_current = kMain;
    QVariantMap m_pair;
};
