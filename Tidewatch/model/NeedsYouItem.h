#pragma once

#include "link/Approval.h"
#include "model/Answered.h"

#include <variant>

/// One entry of what waits on the user: an approval still open, or one just
/// answered and shown folded in the place it had.
struct NeedsYouItem {
    std::variant<Approval, Answered> value;

    static NeedsYouItem waiting(Approval approval) { return NeedsYouItem{std::move(approval)}; }
    static NeedsYouItem answered(Answered done) { return NeedsYouItem{std::move(done)}; }

    bool isAnswered() const { return std::holds_alternative<Answered>(value); }
    /// The approval in either case; an answered one as it stood when answered.
    const Approval& approval() const
    {
        if (const Answered* done = std::get_if<Answered>(&value))
            return done->approval;
        return std::get<Approval>(value);
    }
    /// The answer, when there is one.
    const Answered* answer() const { return std::get_if<Answered>(&value); }

    bool operator==(const NeedsYouItem&) const = default;
};
