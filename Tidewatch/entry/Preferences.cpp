#include "entry/Preferences.h"

#include "platform/Platform.h"

Preferences::Preferences(const Environment& environment)
    : m_domain(environment.preferencesDomain())
{
    const QString file = platform::preferencesFile(m_domain, environment.home(), environment.variables());
    if (file.isEmpty()) {
        const QString application
            = environment.isTestCopy() ? QStringLiteral("tidewatch.test") : QStringLiteral("tidewatch");
        m_settings = std::make_unique<QSettings>(QStringLiteral("harbourlab.com"), application);
    } else {
        m_settings = std::make_unique<QSettings>(file, QSettings::IniFormat);
    }
}

bool Preferences::flag(const QString& key) const
{
    return m_settings->value(key, false).toBool();
}

void Preferences::setFlag(const QString& key, bool value)
{
    if (flag(key) == value && m_settings->contains(key))
        return;
    m_settings->setValue(key, value);
    m_settings->sync();
}
