// The shared library Kd is made of the subsystem libraries, linked whole; this
// file only gives its target a source of its own.
