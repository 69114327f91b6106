// SPDX-License-Identifier: Apache-2.0
// Parsing is free of effects: each parser returns a value with the problems found, and only the class logs
// them and stores the value.
#include "configuration/Configuration.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "configuration/Contains.hpp"
#include "exceptions/Exceptions.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>

namespace {

constexpr const char* configurationFile = "/etc/brindlewax.d/agent.conf";

template <typename Item>
using NamedLists = std::unordered_map<std::string, std::vector<Item>>;

/// What a value means, and what is wrong with it, in the order found.
template <typename Value>
struct Parsed {
    Value value;
    std::vector<std::string> problems;
};

struct Assignment {
    std::string key;
    std::string value;
};

std::optional<Assignment> ParseAssignment(const std::string& line) {
    const std::size_t equals = line.find('=');
    if (line.starts_with('#') || equals == std::string::npos) {
        return std::nullopt;
    }
    return Assignment{.key = line.substr(0, equals), .value = line.substr(equals + 1)};
}

bool IsBlank(const std::string& value) {
    return value.find_first_not_of(" \t\n\v\f\r") == std::string::npos;
}

/// The value without its enclosing quotes; nothing when only one side has a quote.
std::optional<std::string> Unquote(const std::string& value) {
    const bool opens = value.starts_with('"');
    const bool closes = value.ends_with('"') && (value.size() > 1 || !opens);
    if (opens != closes) {
        return std::nullopt;
    }
    return opens ? value.substr(1, value.size() - 2) : value;
}

/// A whole unsigned 32-bit number, read as strtoul(3) reads it. Throws std::invalid_argument where there are
/// no digits or text follows them, and std::out_of_range.
std::uint32_t stou(const std::string& text) { // NOLINT(readability-identifier-naming): kin of std::stoul
    std::size_t length = 0;
    const unsigned long number = std::stoul(text, &length);
    if (length != text.size()) {
        throw std::invalid_argument("stou");
    }
    if (number > std::numeric_limits<std::uint32_t>::max()) {
        throw std::out_of_range("stou");
    }
    return static_cast<std::uint32_t>(number);
}

Parsed<bool> ParseShareCore(std::string value) {
    std::ranges::transform(value, value.begin(),
                           [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    if (value == "true" || value == "false") {
        return {.value = value == "true", .problems = {}};
    }
    return {.value = false,
            .problems = {std::string(ConfigurationKeys::shareCore) +
                         " expects 'true' or 'false'. Got: " + value + ". Defaulting to 'false'."}};
}

std::uint32_t ParseQuotaPercentage(const std::string& value) {
    const auto rejection = [&value](const std::string& problem) {
        return Exceptions::XRuntimeError(ConfigurationKeys::quotaPercentage + problem + ". Got: " + value +
                                         ".");
    };
    std::uint32_t percentage = 0;
    try {
        percentage = stou(value);
    } catch (const std::invalid_argument&) {
        throw rejection(" must be a positive integer with no extra characters");
    } catch (const std::out_of_range&) {
        throw rejection(" value is out of range");
    }
    if (percentage == 0) {
        throw rejection(" must be greater than 0");
    }
    return percentage;
}

Parsed<std::chrono::seconds> ParseTimeout(const std::string& key, const std::string& value,
                                          std::chrono::seconds fallback) {
    const auto rejection = [&](const std::string& problem) {
        return Parsed<std::chrono::seconds>{.value = fallback,
                                            .problems = {key + problem + ". Got: " + value +
                                                         ". Defaulting to " +
                                                         std::to_string(fallback.count()) + " seconds."}};
    };
    try {
        const int seconds = std::stoi(value); // text after the digits is ignored
        if (seconds < 0) {
            return rejection(" must be non-negative");
        }
        return {.value = std::chrono::seconds(seconds), .problems = {}};
    } catch (const std::invalid_argument&) {
        return rejection(" expects a valid integer");
    } catch (const std::out_of_range&) {
        return rejection(" value is out of range");
    }
}

/// How the two keys that map names to lists differ: in what they call the name and the list, and in their
/// items.
template <typename Item>
struct NamedListsGrammar {
    std::string key;
    std::string emptyName;
    std::string emptyList;
    Parsed<std::vector<Item>> (*parseItems)(const std::string& list);

    std::string Complaint(const std::string& problem, const std::string& entry) const {
        return key + " - " + problem + " at line: " + entry;
    }
};

/// Adds the entry "name:item,item" to the lists; returns what is wrong with it.
template <typename Item>
std::vector<std::string> AddEntry(const std::string& entry, const NamedListsGrammar<Item>& grammar,
                                  NamedLists<Item>& lists) {
    const std::size_t colon = entry.find(':');
    if (colon == std::string::npos) {
        return {grammar.Complaint("Bad formatting in configuration file", entry) +
                ". Missing ':' separator."};
    }
    const std::string name = entry.substr(0, colon);
    if (name.empty()) {
        return {grammar.Complaint(grammar.emptyName, entry)};
    }
    const std::string list = entry.substr(colon + 1);
    if (list.empty()) {
        return {grammar.Complaint(grammar.emptyList, entry)};
    }
    Parsed<std::vector<Item>> items = grammar.parseItems(list);
    for (std::string& problem : items.problems) {
        problem = grammar.Complaint(problem, entry);
    }
    std::vector<Item>& known = lists[name];
    known.insert(known.end(), items.value.begin(), items.value.end());
    return std::move(items.problems);
}

/// Parses "name:item,item;name:item". Any problem empties the whole map, and nothing after it is examined:
/// half an assignment would put workers where the operator does not expect them.
template <typename Item>
Parsed<NamedLists<Item>> ParseNamedLists(const std::string& value, const NamedListsGrammar<Item>& grammar) {
    NamedLists<Item> lists;
    for (const std::string& entry : Split(value, ';')) {
        std::vector<std::string> problems = AddEntry(entry, grammar, lists);
        if (!problems.empty()) {
            return {{}, std::move(problems)};
        }
    }
    return {std::move(lists), {}};
}

Parsed<std::vector<std::uint32_t>> ParseCoreIds(const std::string& list) {
    Parsed<std::vector<std::uint32_t>> cores;
    for (const std::string& token : Split(list, ',')) {
        try {
            cores.value.push_back(stou(token));
        } catch (const std::invalid_argument&) {
            cores.problems.emplace_back("Invalid core ID defined");
        } catch (const std::out_of_range&) {
            cores.problems.emplace_back("Out of range core ID defined");
        }
    }
    return cores;
}

Parsed<std::vector<std::string>> ParseApplicationNames(const std::string& list) {
    Parsed<std::vector<std::string>> names{.value = Split(list, ','), .problems = {}};
    if (Contains(names.value, std::string())) {
        names.problems.emplace_back("Application name cannot be empty in configuration file");
    }
    return names;
}

Parsed<NamedLists<std::uint32_t>> ParseCoreDistribution(const std::string& value) {
    const NamedListsGrammar<std::uint32_t> grammar{.key = ConfigurationKeys::coreDistribution,
                                                   .emptyName = "Process name cannot be empty",
                                                   .emptyList = "Core list cannot be empty",
                                                   .parseItems = ParseCoreIds};
    return ParseNamedLists(value, grammar);
}

Parsed<NamedLists<std::string>> ParseApplicationGroups(const std::string& value) {
    const NamedListsGrammar<std::string> grammar{.key = ConfigurationKeys::applicationGroups,
                                                 .emptyName = "Group name cannot be empty",
                                                 .emptyList =
                                                     "Application list cannot be empty in configuration file",
                                                 .parseItems = ParseApplicationNames};
    return ParseNamedLists(value, grammar);
}

template <typename Value>
// NOLINTNEXTLINE(performance-unnecessary-value-param): moved from, but for a plain value it is the same
Value LogProblems(const Interfaces::ILogger& logger, Parsed<Value> parsed) {
    for (const std::string& problem : parsed.problems) {
        logger.Error(problem);
    }
    return std::move(parsed.value);
}

} // namespace

Configuration::Configuration(std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                             std::shared_ptr<Interfaces::ILogger> loggerService)
    : fileSystem(std::move(fileSystemService)), logger(std::move(loggerService)) {
    Exceptions::RequireNotNull(fileSystem, "fileSystem");
    Exceptions::RequireNotNull(logger, "logger");
    if (!fileSystem->FileExists(configurationFile)) {
        return;
    }
    std::unordered_set<std::string> seenKeys;
    for (const std::string& line : fileSystem->ReadLines(configurationFile)) {
        LoadLine(line, seenKeys);
    }
}

bool Configuration::ShareCore() const {
    return shareCore;
}

std::uint32_t Configuration::ManagedProcessCpuQuotaPercentage() const {
    return managedProcessCpuQuotaPercentage;
}

std::vector<std::uint32_t> Configuration::CoreAssignmentSchema(const std::string& processName) const {
    std::set<std::uint32_t> cores;
    const auto addCoresOf = [this, &cores](const std::string& name) {
        const auto assigned = coreDistribution.find(name);
        if (assigned != coreDistribution.end()) {
            cores.insert(assigned->second.begin(), assigned->second.end());
        }
    };
    for (const auto& [group, applications] : applicationGroups) {
        if (Contains(applications, processName)) {
            addCoresOf(group);
        }
    }
    addCoresOf(processName);
    return {cores.begin(), cores.end()};
}

std::chrono::seconds Configuration::ProcessExecutionTimeout() const {
    return processExecutionTimeout;
}

std::chrono::seconds Configuration::ProcessShutdownTimeout() const {
    return processShutdownTimeout;
}

const std::unordered_map<std::string, std::vector<std::string>>& Configuration::ApplicationGroups() const {
    return applicationGroups;
}

void Configuration::LoadLine(const std::string& line, std::unordered_set<std::string>& seenKeys) {
    const std::optional<Assignment> assignment = ParseAssignment(line);
    if (!assignment || IsBlank(assignment->value)) {
        return;
    }
    const std::string& key = assignment->key;
    const std::optional<std::string> value = Unquote(assignment->value);
    if (!value) {
        logger->Warning("Configuration value has malformed quotes for key: " + key +
                        R"(. Expected format: key="value" or key=value. Ignoring line.)");
        return;
    }
    if (value->find('=') != std::string::npos) {
        logger->Warning("Double '=' found in value for key: " + key + ". Ignoring it.");
        return;
    }
    if (!seenKeys.insert(key).second) {
        logger->Warning("Duplicate configuration key found: " + key + ". Ignoring duplicate entry.");
        return;
    }
    SetValue(key, *value);
}

void Configuration::SetValue(const std::string& key, const std::string& value) {
    if (key == ConfigurationKeys::shareCore) {
        shareCore = LogProblems(*logger, ParseShareCore(value));
    } else if (key == ConfigurationKeys::quotaPercentage) {
        managedProcessCpuQuotaPercentage = ParseQuotaPercentage(value);
    } else if (key == ConfigurationKeys::executionTimeout) {
        processExecutionTimeout = LogProblems(*logger, ParseTimeout(key, value, processExecutionTimeout));
    } else if (key == ConfigurationKeys::coreDistribution) {
        coreDistribution = LogProblems(*logger, ParseCoreDistribution(value));
    } else if (key == ConfigurationKeys::shutdownTimeout) {
        processShutdownTimeout = LogProblems(*logger, ParseTimeout(key, value, processShutdownTimeout));
    } else if (key == ConfigurationKeys::applicationGroups) {
        applicationGroups = LogProblems(*logger, ParseApplicationGroups(value));
    }
}
