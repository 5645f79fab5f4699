// A program that writes down how it was started: the test program itself, under another name. Helpers for tests that
// start programs.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

struct ShownProcess {
    std::vector<std::string> arguments;
    std::string directory;
    std::string path;     // its PATH; "-" when it has none
    std::string blocked;  // its signal mask, as /proc shows it
};

// Makes a new directory for programs that the test runs.
std::string makeProgramDirectory();

// Puts the program there under a name: its path. It writes nothing down outside a ShowProcesses scope.
std::string makeShownProgram(const std::string &directory, const std::string &name);

// Puts a script there: its path.
std::string makeScript(const std::string &directory, const std::string &name, const std::string &text);

// Sets or unsets an environment variable for a scope.
class Variable {
  public:
    Variable(const char *name, const char *value) : name_(name), had_(getenv(name) != nullptr) {
        old_ = had_ ? getenv(name) : "";
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~Variable() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

  private:
    const char *name_;
    bool had_;
    std::string old_;
};

// While it lives, the program writes down how this process has started it, and ends with status 0.
class ShowProcesses {
  public:
    ShowProcesses();
    ~ShowProcesses();
    ShowProcesses(const ShowProcesses &) = delete;
    ShowProcesses &operator=(const ShowProcesses &) = delete;

    // What the last one has written. It must have ended.
    ShownProcess take();

  private:
    std::string file_;
};
