/// \file
/// A value, or why there is none.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "pipeline/base/Failure.h"

namespace vrk {

/// Why there is no value: what was wrong, where, and what to try, in one sentence.
struct Error {
    FailureKind kind = FailureKind::Failed;
    std::string text;
};

/// What functions return that take an Observer: they throw nothing. Used as std::expected.
///
///     const auto series = vrk::TiltSeries::read("series.mrc");
///     if (!series) std::cerr << series.error().text;
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : m_content(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : m_content(std::in_place_index<1>, std::move(error)) {}

    bool has_value() const { return m_content.index() == 0; }
    explicit operator bool() const { return has_value(); }

    /// \name Without a check: the result must have a value.
    /// @{
    T& operator*() & { return *std::get_if<0>(&m_content); }
    const T& operator*() const& { return *std::get_if<0>(&m_content); }
    T&& operator*() && { return std::move(*std::get_if<0>(&m_content)); }
    T* operator->() { return std::get_if<0>(&m_content); }
    const T* operator->() const { return std::get_if<0>(&m_content); }
    /// @}

    /// \name Throw the error as a Failure where there is no value.
    /// @{
    T& value() & { return checked(), **this; }
    const T& value() const& { return checked(), **this; }
    T&& value() && { return checked(), std::move(**this); }
    /// @}

    /// The result must have none.
    const Error& error() const { return *std::get_if<1>(&m_content); }

private:
    void checked() const {
        if (!has_value()) throw Failure(error().text, error().kind);
    }

    std::variant<T, Error> m_content;
};

/// Of what returns no value.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : m_error(std::move(error)) {}

    bool has_value() const { return !m_error; }
    explicit operator bool() const { return has_value(); }
    void value() const {
        if (m_error) throw Failure(m_error->text, m_error->kind);
    }
    const Error& error() const { return *m_error; }

private:
    std::optional<Error> m_error;
};

}  // namespace vrk
