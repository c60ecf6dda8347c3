// SPDX-License-Identifier: Apache-2.0
// echo.h - answers echo requests, each in the virtual router that it arrives in.
#ifndef SAMPLED_ECHO_H
#define SAMPLED_ECHO_H

namespace sampled {

inline constexpr int kEchoPort = 7007;

// Opens a UDP socket in a VR on the port. False, with a line on the console, if the VR is not available.
bool echo_in_vr(int vrid, int port);

// The same in the VR of an interface, by its appliance name.
bool echo_at_interface(const char *name, int port);

} // namespace sampled

#endif
