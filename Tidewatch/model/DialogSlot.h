#pragma once

#include "model/GlassDialog.h"

#include <QObject>

#include <optional>

/// The one place a dialog stands: a new one replaces whatever was there, and
/// work that ends late closes only the dialog that started it.
class DialogSlot : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    const std::optional<GlassDialog>& dialog() const { return m_dialog; }
    /// The open dialog's work is under way.
    bool working() const { return m_working; }

    void show(GlassDialog dialog);
    /// The primary button: the dialog stays, working, until its work ends;
    /// a failure closes it and is handed on.
    void confirm(bool option);
    /// The dialog was dismissed: its cancel runs.
    void cancel();
    /// The secondary button runs its own action, or dismisses.
    void secondary();

Q_SIGNALS:
    void dialogChanged();
    void workingChanged();
    /// The work behind the primary button failed, in a sentence for the note line.
    void failed(const QString& sentence);

private:
    void setWorking(bool working);
    void setDialog(std::optional<GlassDialog> dialog);

    std::optional<GlassDialog> m_dialog;
    bool m_working = false;
};
