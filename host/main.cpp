// lumora2-model: the command-line host. Everything lives in lumora2_host; see host/entry.h.
#include "host/entry.h"

int main(int argc, char** argv) { return lumora2::lumora2_host_main(argc, argv); }
