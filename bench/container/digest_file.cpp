// digest_file <path>: prints "<sha256>  <bytes>" as Archive::digest computes it for a file or a
// model package directory. Exit 1 with the error on standard error when the digest fails.
#include <exception>
#include <iostream>

#include "container/archive.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: digest_file <path>\n";
    return 1;
  }
  try {
    lumora2::Archive::Digest d = lumora2::Archive::digest(argv[1]);
    std::cout << d.sha256 << "  " << d.bytes << '\n';
  } catch (const std::exception& e) {
    std::cerr << "digest_file: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
