// Whether objects of a type may be moved as bytes.
//
// Copying an object's bytes to new storage and forgetting the old place (no
// destructor run there) is what "move, then destroy the source" amounts to
// for trivially copyable types, and also for many that are not, such as a
// counted reference: its move takes the pointer and leaves null behind, and
// destroying null does nothing. Containers that move members in bulk
// (Vela::HashMap shifting a run, or growing its table in place) ask this
// trait; a type opts in by specializing TriviallyRelocatable.
#pragma once

#include <type_traits>

namespace Vela {

template <class T>
struct TriviallyRelocatable : std::is_trivially_copyable<T> {};

template <class T>
inline constexpr bool kTriviallyRelocatable = TriviallyRelocatable<T>::value;

}  // namespace Vela
