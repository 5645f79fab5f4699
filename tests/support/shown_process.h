// A program that tells how it was started: the test binary itself, under another name.
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

// A directory of the test's own, where programs can be put and run.
std::string makeProgramDirectory();

// Puts the telling program there under a name: its path. It tells only within a ShowProcesses scope.
std::string makeShownProgram(const std::string &directory, const std::string &name);

// Puts a script there: its path.
std::string makeScript(const std::string &directory, const std::string &name, const std::string &text);

// An environment variable that is set back at the end.
class Variable {
  public:
    Variable(const char *name, const char *value) : name_(name) {
        const char *old = getenv(name);
        had_ = old != nullptr;
        old_ = had_ ? old : "";
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

// While it lives, a telling program that this process starts tells, and ends with status 0.
class ShowProcesses {
  public:
    ShowProcesses();
    ~ShowProcesses();
    ShowProcesses(const ShowProcesses &) = delete;
    ShowProcesses &operator=(const ShowProcesses &) = delete;

    // What the last one told, which must have ended.
    ShownProcess take();

  private:
    std::string file_;
};
