// What the sample calls of the NDK's header of this name, which Debian does not ship.
#pragma once

struct ANativeWindow;

extern "C" {
void ANativeWindow_acquire(ANativeWindow* window);
void ANativeWindow_release(ANativeWindow* window);
}
