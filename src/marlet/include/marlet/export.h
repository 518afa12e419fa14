#pragma once
// libmarletapi is built with hidden symbols: only what the public headers mark
// with MARLET_API leaves the library. The generated DDS type, the serialized
// sample reader and the DDS helpers stay inside it, so a program that links
// its own copy of one of them (the tests' raw bus writer does) never has two
// definitions of one symbol meet at run time.

#define MARLET_API __attribute__((visibility("default")))
