#pragma once

#include "surface/StatusButton.h"

#include <QStringList>

#include <utility>

/// A status button that writes down what it was told, one line a call:
/// "image spin-0-badge", "title 2", "label Tidewatch", "wide 1", "highlight 0".
class RecordingButton final : public StatusButton
{
public:
    void setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image&) override
    {
        calls << QStringLiteral("image ") + frame.name();
    }
    void setTitle(const QString& title) override { calls << QStringLiteral("title ") + title; }
    void setLabel(const QString& label) override { calls << QStringLiteral("label ") + label; }
    void setHighlighted(bool on) override { calls << QStringLiteral("highlight %1").arg(int(on)); }
    void setWide(bool wide) override { calls << QStringLiteral("wide %1").arg(int(wide)); }

    /// The calls since the last take.
    QStringList take() { return std::exchange(calls, {}); }
    /// The images put on it, in order.
    QStringList images() const { return calls.filter(QStringLiteral("image ")); }

    QStringList calls;
};
