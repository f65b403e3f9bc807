// Whether this build runs at the product's own speed. Under a sanitizer every instrumented
// function runs several times slower, so a bound on real time (how many audio units may
// overtake a keyframe, how soon a process exits) says nothing about the product there; the
// behaviour those tests check still holds and is still asserted.
#pragma once

namespace mirell::testsupport {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitizedBuild = true;
#else
inline constexpr bool kSanitizedBuild = false;
#endif

}  // namespace mirell::testsupport
