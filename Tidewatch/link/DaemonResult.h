#pragma once

#include "link/DaemonError.h"

#include <utility>
#include <variant>

/// What a call to the service gives back: the decoded reply or the failure.
template <class T> class DaemonResult
{
public:
    DaemonResult(T value)
        : m_value(std::in_place_index<0>, std::move(value))
    {
    }
    DaemonResult(DaemonError error)
        : m_value(std::in_place_index<1>, std::move(error))
    {
    }

    bool ok() const { return m_value.index() == 0; }
    const T& value() const { return std::get<0>(m_value); }
    T& value() { return std::get<0>(m_value); }
    const DaemonError& error() const { return std::get<1>(m_value); }

private:
    std::variant<T, DaemonError> m_value;
};

/// The reply of a call whose answer carries nothing the app reads.
struct Ignored {
    bool operator==(const Ignored&) const = default;
};
