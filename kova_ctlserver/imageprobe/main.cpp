#include <cstdio>

#include "Decoder.h"

/// Decodes a picture and prints its properties (Decoder.h). Exit status 2 for wrong usage.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: kova_imageprobe FILE\n", stderr);
    return 2;
  }
  kova::imageprobe::decodeConfined(argv[1]);
}
