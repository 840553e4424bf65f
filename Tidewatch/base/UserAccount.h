#pragma once

#include <QString>

/// The account this process runs as, read from the user database rather than
/// the environment: an app started by the login window may lack HOME, and a
/// test may set it to a scratch folder.
namespace account {

/// The current user's home, or Qt's idea of it when the database has none.
QString homeDirectory();

/// The current user's account name, as sudo's rules name it; empty when unknown.
QString userName();

} // namespace account
