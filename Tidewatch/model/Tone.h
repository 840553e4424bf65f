#pragma once

/// What a card or button means to the person, which the surface turns into a
/// colour: the model says why something stands out, never how it looks.
enum class Tone {
    Accent, ///< the ordinary call to act
    Amber, ///< something wants attention soon
    Danger, ///< something failed or can't be undone
};
