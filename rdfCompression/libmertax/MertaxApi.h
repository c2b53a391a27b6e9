// Marks what libmertax.so exports; everything else in the library is hidden.
#pragma once

#define MERTAX_API __attribute__((visibility("default")))
