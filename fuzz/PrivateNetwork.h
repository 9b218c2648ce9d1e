#pragma once

/// Moves this program, which must have one thread still, into a network of its own: the loopback interface, which
/// also has `address`, and nothing else.
/// @return false where the system refuses.
bool EnterPrivateNetwork(const char* address);
