// rplqmfmt: prints the messages of one Velora KX queue readably.
#include "driver/run.h"

int main(int argc, char** argv) { return rplqmfmtMain(argc, argv); }
