// Captures the failure reports issued while a test step runs.
#pragma once

#include <cstdio>
#include <string>

#include "runtime/catalog.h"

class ReportCapture {
 public:
  ReportCapture() : logger_(msgLogger::create(13, 0)), before_(rplLogger()), file_(tmpfile()) {
    logger_->loadCatalog(kRplCatalog);
    logger_->setOutput(file_);
    setRplLogger(logger_);
  }
  ~ReportCapture() {
    setRplLogger(before_);
    fclose(file_);
    delete logger_;
  }
  // Everything reported so far, time stamps included.
  std::string text() const {
    fflush(file_);
    std::string out;
    rewind(file_);
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, file_)) > 0) out.append(buf, n);
    return out;
  }

 private:
  msgLogger* logger_;
  msgLogger* before_;
  FILE* file_;
};
