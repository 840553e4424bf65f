#include "model/DialogSlot.h"

#include <QPointer>

void DialogSlot::setWorking(bool working)
{
    if (m_working == working)
        return;
    m_working = working;
    Q_EMIT workingChanged();
}

void DialogSlot::setDialog(std::optional<GlassDialog> dialog)
{
    if (m_dialog == dialog)
        return;
    m_dialog = std::move(dialog);
    Q_EMIT dialogChanged();
}

void DialogSlot::show(GlassDialog dialog)
{
    setWorking(false);
    setDialog(std::move(dialog));
}

void DialogSlot::confirm(bool option)
{
    if (!m_dialog || m_working)
        return;
    if (!m_dialog->confirm) {
        setDialog(std::nullopt);
        return;
    }
    setWorking(true);
    // The work may end after another dialog took the slot; it closes only its own.
    const QUuid asked = m_dialog->id;
    m_dialog->confirm(option, [this, asked, guard = QPointer<DialogSlot>(this)](std::optional<QString> failure) {
        if (!guard || !m_dialog || m_dialog->id != asked)
            return;
        setWorking(false);
        setDialog(std::nullopt);
        if (failure)
            Q_EMIT failed(*failure);
    });
}

void DialogSlot::cancel()
{
    if (!m_dialog)
        return;
    const std::function<void()> cancelled = m_dialog->cancel;
    setWorking(false);
    setDialog(std::nullopt);
    if (cancelled)
        cancelled();
}

void DialogSlot::secondary()
{
    if (!m_dialog)
        return;
    const std::function<void()> action = m_dialog->secondaryAction;
    if (!action) {
        cancel();
        return;
    }
    setDialog(std::nullopt);
    action();
}
