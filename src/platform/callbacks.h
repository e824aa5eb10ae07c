// Callbacks of C libraries, whose last argument is the data that they were given.
#pragma once

#include <glib.h>

#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

namespace callbacks {

template <typename Result, typename Data, typename... Arguments>
Data* data_of(Result (*function)(Data* data, Arguments... arguments));
template <typename Result, typename Data, typename... Arguments>
Data* data_of(Result (Data::*function)(Arguments... arguments));

template <auto function, typename Arguments, gsize... before>
auto call(const Arguments& arguments, std::index_sequence<before...> /*unused*/) {
  auto* const data =
      static_cast<decltype(data_of(function))>(std::get<sizeof...(before)>(arguments));
  if constexpr (std::is_invocable_v<decltype(function), decltype(data),
                                    std::tuple_element_t<before, Arguments>...>) {
    return std::invoke(function, data, std::get<before>(arguments)...);
  } else {
    return std::invoke(function, data);
  }
}

} // namespace callbacks

/// The function as a callback of any form: a member of what the data is, or one that takes a
/// pointer to that first. Of the other arguments it takes all or none.
template <auto function>
constexpr auto callback = [](auto... arguments) {
  return callbacks::call<function>(std::tuple(arguments...),
                                   std::make_index_sequence<sizeof...(arguments) - 1>());
};

/// Deletes data that a callback owned.
template <typename Data>
void delete_data(gpointer data) {
  delete static_cast<Data*>(data);
}
