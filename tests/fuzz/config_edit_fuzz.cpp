// Any file and any edit of it: what is read afterwards must equal a model of the file, to which the edit was applied.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "base/text.h"
#include "check.h"
#include "profile/config.h"
#include "vwincompat/profile.h"

namespace {

using std::string;

struct Entry {
    string key;
    string value;
    bool operator==(const Entry &other) const { return key == other.key && value == other.value; }
};

struct Section {
    string name;  // not used of the first section, which has none
    std::vector<Entry> entries;
    bool operator==(const Section &other) const { return name == other.name && entries == other.entries; }
};
using Model = std::vector<Section>;

Model readModel(const string &content) {
    Model model(1);
    for (size_t begin = 0; begin < content.size();) {
        const size_t newline = content.find('\n', begin);
        const size_t end = newline == string::npos ? content.size() : newline + 1;
        const string line = content.substr(begin, std::min(end - begin, kConfigLineSize - 1));
        begin += line.size();
        char first[kConfigNameSize];
        char second[kConfigNameSize];
        if (vlliGetSectionName(line.c_str(), first) == 1) {
            model.push_back({first, {}});
        } else if (vlliGetValue(line.c_str(), first, second) == 1) {
            model.back().entries.push_back({first, second});
        }
    }
    return model;
}

// The section that an operation uses, or the end.
Model::iterator find(Model *model, const char *section) {
    if (section == nullptr) {
        return model->begin();
    }
    return std::find_if(model->begin() + 1, model->end(), [&](const Section &candidate) {
        return vlliEqualsIgnoringCase(candidate.name, section);
    });
}

bool removeKey(Section *section, const char *key) {
    const auto kept =
        std::remove_if(section->entries.begin(), section->entries.end(),
                       [&](const Entry &entry) { return vlliEqualsIgnoringCase(entry.key, key); });
    const bool removed = kept != section->entries.end();
    section->entries.erase(kept, section->entries.end());
    return removed;
}

struct Edit {
    int operation;  // 0 to 3: set, delete, add section, delete section
    string section;
    bool no_section;
    string key;
    string value;

    const char *name() const { return no_section ? nullptr : section.c_str(); }
};

// Applies the edit to the model: false when it must fail on the file.
bool applyToModel(Model *model, const Edit &edit) {
    const auto section = find(model, edit.name());
    if (edit.operation == 2) {
        if (edit.no_section || !vlliCheckConfigSection(edit.name()) || section != model->end()) {
            return false;
        }
        model->push_back({edit.section, {}});
        return true;
    }
    if (section == model->end()) {
        return false;
    }
    if (edit.operation == 3) {
        if (edit.no_section) {
            section->entries.clear();
        } else {
            model->erase(section);
        }
        return true;
    }
    if (edit.operation == 1) {
        return removeKey(&*section, edit.key.c_str());
    }
    if (!vlliCheckConfigEntry(edit.key.c_str(), edit.value.c_str())) {
        return false;
    }
    removeKey(&*section, edit.key.c_str());
    // A value is written as it is. The parser decides what the line means, if anything.
    const bool quoted = edit.key.find_first_of(" \t") != string::npos;
    const Model line = readModel((quoted ? '"' + edit.key + '"' : edit.key) + "=" + edit.value);
    section->entries.insert(section->entries.begin(), line[0].entries.begin(), line[0].entries.end());
    return true;
}

bool applyToFile(const char *file, const Edit &edit) {
    switch (edit.operation) {
        case 0:
            return vllAddConfigValue(file, edit.name(), edit.key.c_str(), edit.value.c_str());
        case 1:
            return vllDeleteConfigValue(file, edit.name(), edit.key.c_str());
        case 2:
            return vllAddConfigSection(file, edit.name());
        default:
            return vllDeleteConfigSection(file, edit.name());
    }
}

// Checks that the readers find in the file what the model holds.
void checkReaders(const char *file, Model *model) {
    string names;
    for (auto section = model->begin() + 1; section != model->end(); ++section) {
        names += section->name + '\0';
    }
    string list(names.size() + 2, '~');
    const DWORD count = vllReadAllSections(nullptr, list.data(), static_cast<DWORD>(list.size()), file);
    VLL_CHECK(count == names.size() && list.substr(0, count) == names);
    int checked = 0;
    for (auto section = model->begin(); section != model->end(); ++section) {
        const char *const name = section == model->begin() ? nullptr : section->name.c_str();
        for (const Entry &entry : find(model, name)->entries) {
            const auto &entries = find(model, name)->entries;
            const auto first = std::find_if(entries.begin(), entries.end(), [&](const Entry &candidate) {
                return vlliEqualsIgnoringCase(candidate.key, entry.key);
            });
            char value[kConfigNameSize];
            DWORD size = sizeof value;
            VLL_CHECK(vllReadConfigValue(file, name, entry.key.c_str(), value, &size));
            VLL_CHECK(first->value == value);
            if (++checked == 16) {
                return;  // each read opens the file, which takes time
            }
        }
    }
}

string contentOf(const string &file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// A file on a memory file system, which is removed at the end.
string directory;

const string &fileName() {
    static const string name = [] {
        char pattern[] = "/dev/shm/vll-fuzz-XXXXXX";
        VLL_CHECK(mkdtemp(pattern) != nullptr);
        directory = pattern;
        atexit([] {
            unlink((directory + "/f").c_str());
            unlink((directory + "/fcopy").c_str());
            rmdir(directory.c_str());
        });
        return directory + "/f";
    }();
    return name;
}

// Replaces two bytes by long stretches, so that lines and names reach their limits.
string stretched(const string &text) {
    string result;
    for (const char c : text) {
        if (c == '\1') {
            result.append(1020, 'x');
        } else if (c == '\2') {
            result.append(4090, ' ');
        } else {
            result += c;
        }
    }
    return result;
}

string nameFrom(FuzzedDataProvider *input, const Model &model, bool section) {
    // Every second name is one of the file: an edit of what exists does more.
    if (input->ConsumeBool()) {
        const Section &from = model[input->ConsumeIntegralInRange<size_t>(0, model.size() - 1)];
        if (section) {
            return from.name;
        }
        if (!from.entries.empty()) {
            return from.entries[input->ConsumeIntegralInRange<size_t>(0, from.entries.size() - 1)].key;
        }
    }
    return stretched(input->ConsumeRandomLengthString(20)).c_str();
}

}  // namespace

extern "C" void __wrap_sync();
void __wrap_sync() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider input(data, size);
    const string content = stretched(input.ConsumeRandomLengthString(2000));
    Model model = readModel(content);
    const string &file = fileName();
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    checkReaders(file.c_str(), &model);

    Edit edit;
    edit.operation = input.ConsumeIntegralInRange(0, 3);
    edit.no_section = input.ConsumeIntegralInRange(0, 3) == 0;
    edit.section = nameFrom(&input, model, true);
    edit.key = nameFrom(&input, model, false);
    edit.value = stretched(input.ConsumeRemainingBytesAsString()).c_str();
    const bool expected = applyToModel(&model, edit);
    const bool done = applyToFile(file.c_str(), edit);
    VLL_CHECK(done == expected);
    if (!done) {
        VLL_CHECK(contentOf(file) == content);
        return 0;
    }
    if (edit.operation != 0 || edit.value.find('\n') == string::npos) {
        VLL_CHECK(readModel(contentOf(file)) == model);
    } else {
        model = readModel(contentOf(file));  // a value of several lines may make any lines
    }
    checkReaders(file.c_str(), &model);
    return 0;
}
