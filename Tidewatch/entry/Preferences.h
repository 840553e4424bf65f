#pragma once

#include "entry/Environment.h"

#include <QSettings>
#include <QString>

#include <memory>

/// The program's persisted flags, in one domain: the user defaults of
/// "com.harbourlab.tidewatch", or the test copy's own suite.
class Preferences
{
public:
    static inline const QString setupCompleted = QStringLiteral("setupCompleted");
    static inline const QString loginItemWanted = QStringLiteral("loginItemWanted");
    static inline const QString voiceAsked = QStringLiteral("voiceAsked");
    static inline const QString codexAsked = QStringLiteral("codexAsked");
    static inline const QString claudeSkipped = QStringLiteral("claudeSkipped");
    static inline const QString moveToApplicationsDeclined = QStringLiteral("moveToApplicationsDeclined");

    explicit Preferences(const Environment& environment = Environment::current());

    /// A flag that was never set reads false.
    bool flag(const QString& key) const;
    void setFlag(const QString& key, bool value);
    /// A text setting; empty when unset.
    QString text(const QString& key) const { return m_settings->value(key).toString(); }
    void setText(const QString& key, const QString& value)
    {
        m_settings->setValue(key, value);
        m_settings->sync();
    }

    const QString& domain() const { return m_domain; }
    /// Where the flags are stored, for messages and tests.
    QString location() const { return m_settings->fileName(); }

private:
    QString m_domain;
    std::unique_ptr<QSettings> m_settings;
};
