// Command line and run control of rplqmfmt.
#pragma once

#include <cstdint>
#include <cstdio>

#include "driver/xml_printer.h"

// The command line as parsed.
struct RunOptions {
  char queueName[49] = {};        // at most 48 characters
  char qmgrName[49] = {};         // at most 48 characters
  char outputFile[1025] = {};     // "-o"
  char encodingName[kEncodingNameRoom] = {};  // "-oenc"; empty: the platform's default converter
  int32_t limit = -1;             // "-l"; -1: no limit
  int32_t skip = 0;               // "-s" (not shown in the usage)
  bool hex = false;               // "-hex"
  bool fullDescriptor = false;    // "-kxmd"
  bool headerOnly = false;        // "-msghdr"
  bool deleteMsgs = false;        // "-delmsg"
  bool outputNamed = false;       // "-o" given
  int32_t exitCode = 0;
};

// Prints the usage text on standard output.
void printUsage();

// Parses the words after the program name. Returns true when the run goes on; false when it
// ends here with options.exitCode (0 after the usage was asked for, -1 after an error, which
// has been reported and followed by the usage).
bool parseCommandLine(int argc, char** argv, RunOptions& options);

// The program: start-up, the command line, connect, the queue, disconnect, clean-up. Returns
// the exit code.
int rplqmfmtMain(int argc, char** argv);
