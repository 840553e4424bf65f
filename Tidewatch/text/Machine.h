#pragma once

#include <QString>

/// The machine as sentences name it: "this Mac" on macOS, "this computer"
/// elsewhere. Every sentence that names the machine takes its noun from here.
namespace machine {

/// "this Mac", as in "keeps this Mac awake".
QString thisMachine();
/// "This Mac", at the head of a sentence.
QString ThisMachine();
/// "this Mac’s", as in "this Mac’s private name".
QString thisMachines();
/// "your Mac", as in "still keeping your Mac awake".
QString yourMachine();
/// "Your Mac", at the head of a sentence.
QString YourMachine();
/// "the Mac", as in "signed out on the Mac".
QString theMachine();

} // namespace machine
