// A machine of their own for the tests of files: /Ulmex, /etc and below /var the directories of Windows paths, and
// /other, a file system of 1 MiB. Empty and writable at the begin of each test.
#pragma once

#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"

class FileTest : public LibraryTest {
  protected:
    void SetUp() override;

    // Runs body as an ordinary user, where the tests run as root.
    static void asUser(const std::function<void()> &body);
};
