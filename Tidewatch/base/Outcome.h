#pragma once

#include <QString>

#include <utility>
#include <variant>

/// A value, or the finished sentence that says why there is none.
template <class T> class Outcome
{
public:
    Outcome(T value)
        : m_value(std::in_place_index<0>, std::move(value))
    {
    }
    static Outcome failure(QString sentence) { return Outcome(std::in_place_index<1>, std::move(sentence)); }

    bool ok() const { return m_value.index() == 0; }
    const T& value() const { return std::get<0>(m_value); }
    const QString& sentence() const { return std::get<1>(m_value); }

private:
    template <std::size_t I>
    Outcome(std::in_place_index_t<I> index, QString sentence)
        : m_value(index, std::move(sentence))
    {
    }
    std::variant<T, QString> m_value;
};
