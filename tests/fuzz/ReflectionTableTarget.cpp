/// \file
/// The table of reflections that the page of a result is made of.
#include "FuzzInput.h"
#include "pipeline/formats/ReflectionTable.h"

FUZZ_TARGET(bytes) {
    fuzz::ByteStream stream(bytes);
    fuzz::refusable([&] { vrk::readReflectionTable(stream, "reflections.csv"); });
}
