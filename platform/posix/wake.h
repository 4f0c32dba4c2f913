// wake.h - the port's side of tav_wake.h.

#ifndef WAKE_H
#define WAKE_H

// True from tav_wake() to tav_wake_clear().
bool is_woken() noexcept;

// Becomes readable when the port is woken. -1 when the process has no descriptor left for it.
int wake_descriptor() noexcept;

// To be called when the descriptor is readable and nobody is awake: takes the signal back.
void settle_wake() noexcept;

#endif
