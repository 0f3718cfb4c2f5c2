#include "signal_adapter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <unordered_set>

#include "configuration.h"
#include "logging.h"
#include "message_adapter.h"
#include "qtx_header.pb.h"
#include "signal_group.pb.h"

namespace ecu::kora::rt {

namespace {

using nlohmann::json;

// Large enough for any RT signal group, small enough that a typo in "size"
// cannot make add_padding allocate gigabytes per message.
constexpr std::uint64_t max_group_size = 65536;
// The longest topic MQTT can carry.
constexpr std::size_t max_topic_length = 65535;

const std::shared_ptr<logging::LogModule>& catalogue_log() {
    static const auto module = logging::module("kora.rt.catalogue");
    return module;
}

// A schema violation: where in the document and what is wrong.
struct SchemaError {
    std::string path;
    std::string reason;
};

// What a value is, for error messages: numbers and short strings verbatim.
std::string describe(const json& value) {
    if (value.is_number()) {
        return value.dump();
    }
    if (value.is_string()) {
        std::string text = value.dump();
        if (text.size() > 40) {
            text = text.substr(0, 37) + "...";
        }
        return "string " + text;
    }
    return value.type_name();
}

const json& require(const json& object, const std::string& path, const char* key) {
    auto it = object.find(key);
    if (it == object.end()) {
        throw SchemaError{path + "." + key, "required key is missing"};
    }
    return *it;
}

std::string get_name(const json& value, const std::string& path) {
    if (!value.is_string()) {
        throw SchemaError{path, "must be a string, found " + describe(value)};
    }
    std::string text = value.get<std::string>();
    if (text.empty()) {
        throw SchemaError{path, "must not be empty"};
    }
    return text;
}

std::uint64_t get_unsigned(const json& value, const std::string& path, std::uint64_t max,
                           const char* what) {
    std::optional<std::uint64_t> number;
    if (value.is_number_unsigned()) {
        number = value.get<std::uint64_t>();
    } else if (value.is_number_integer() && value.get<std::int64_t>() >= 0) {
        number = static_cast<std::uint64_t>(value.get<std::int64_t>());  // "-0"
    }
    if (!number || *number > max) {
        throw SchemaError{path, std::string("must be ") + what + ", found " + describe(value)};
    }
    return *number;
}

struct SignalDefinition {
    std::string name;
    std::size_t offset;
    std::size_t size;
};

struct GroupDefinition {
    std::string topic;
    std::uint32_t id;
    bool retained;
    std::size_t size;
    std::vector<SignalDefinition> signals;
};

// A topic the broker would refuse to publish on can never carry its group.
std::string get_topic(const json& value, const std::string& path) {
    std::string topic = get_name(value, path);
    if (topic.find_first_of(std::string("+#\0", 3)) != std::string::npos) {
        throw SchemaError{path, "topic " + describe(value) +
                                    " holds a wildcard (+ or #) or a NUL and cannot be published"};
    }
    if (topic.size() > max_topic_length) {
        throw SchemaError{path, "topic is longer than " + std::to_string(max_topic_length) +
                                    " bytes and cannot be published"};
    }
    return topic;
}

GroupDefinition parse_group(const json& group, const std::string& path) {
    if (!group.is_object()) {
        throw SchemaError{path, "must be an object, found " + describe(group)};
    }
    GroupDefinition result;
    result.topic = get_topic(require(group, path, "topic"), path + ".topic");
    result.id = static_cast<std::uint32_t>(get_unsigned(require(group, path, "id"), path + ".id",
                                                        std::numeric_limits<std::uint32_t>::max(),
                                                        "an unsigned 32-bit integer"));
    result.retained = false;
    if (auto it = group.find("retained"); it != group.end()) {
        if (!it->is_boolean()) {
            throw SchemaError{path + ".retained", "must be true or false, found " + describe(*it)};
        }
        result.retained = it->get<bool>();
    }
    result.size = get_unsigned(require(group, path, "size"), path + ".size", max_group_size,
                               "an unsigned integer up to 65536");
    const json& signals = require(group, path, "signals");
    if (!signals.is_array()) {
        throw SchemaError{path + ".signals", "must be an array, found " + describe(signals)};
    }
    std::unordered_set<std::string> names;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const json& signal = signals[i];
        const std::string at = path + ".signals[" + std::to_string(i) + "]";
        if (!signal.is_object()) {
            throw SchemaError{at, "must be an object, found " + describe(signal)};
        }
        SignalDefinition def;
        def.name = get_name(require(signal, at, "name"), at + ".name");
        // Both bounded by the group limit, so their sum cannot overflow.
        def.offset = get_unsigned(require(signal, at, "offset"), at + ".offset", max_group_size,
                                  "an unsigned integer up to 65536");
        def.size = get_unsigned(require(signal, at, "size"), at + ".size", max_group_size,
                                "an unsigned integer up to 65536");
        if (def.size == 0) {
            throw SchemaError{at + ".size", "must be at least 1"};
        }
        if (def.offset + def.size > result.size) {
            throw SchemaError{at + ".offset",
                              "offset + size (" + std::to_string(def.offset + def.size) +
                                  ") exceeds the group size " + std::to_string(result.size)};
        }
        if (!names.insert(def.name).second) {
            throw SchemaError{at + ".name", "duplicate signal name '" + def.name + "'"};
        }
        result.signals.push_back(std::move(def));
    }
    return result;
}

std::vector<GroupDefinition> parse_catalogue(const json& root) {
    if (!root.is_object()) {
        throw SchemaError{"top level", "must be an object, found " + describe(root)};
    }
    auto it = root.find("groups");
    if (it == root.end()) {
        throw SchemaError{"groups", "required key is missing"};
    }
    if (!it->is_array()) {
        throw SchemaError{"groups", "must be an array, found " + describe(*it)};
    }
    std::vector<GroupDefinition> groups;
    groups.reserve(it->size());
    for (std::size_t i = 0; i < it->size(); ++i) {
        groups.push_back(parse_group((*it)[i], "groups[" + std::to_string(i) + "]"));
    }
    return groups;
}

// A key of the file that no part of the schema reads: a typo, most likely.
struct UnknownKey {
    std::size_t line;
    std::string path;
    std::string key;
    std::string meant;  // the nearest known key, if one is close
};

// The text as the parser reads it, one character at a time, counting the
// line it has reached: the parser itself tells no positions but in errors.
class LineCountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    LineCountingIterator(const char* at, std::size_t* line) : m_at(at), m_line(line) {}
    reference operator*() const { return *m_at; }
    LineCountingIterator& operator++() {
        if (*m_at == '\n') {
            ++*m_line;
        }
        ++m_at;
        return *this;
    }
    bool operator==(const LineCountingIterator& other) const { return m_at == other.m_at; }
    bool operator!=(const LineCountingIterator& other) const { return m_at != other.m_at; }

private:
    const char* m_at;
    std::size_t* m_line;
};

// Parses the text and lists the keys of the top level, the groups and the
// signals that the schema does not know, with the line each was read on.
json parse_noting_unknown_keys(const std::string& text, std::vector<UnknownKey>& unknown) {
    enum class Kind { top, groups, group, signals, signal, other };
    struct Container {
        Kind kind;
        bool array;
        std::string path;
        std::size_t index = 0;  // of the next element, in an array
        std::string key;        // the last key read, in an object
    };
    static const std::set<std::string> top_keys = {"groups"};
    static const std::set<std::string> group_keys = {"topic", "id", "retained", "size", "signals"};
    static const std::set<std::string> signal_keys = {"name", "offset", "size"};

    std::size_t line = 1;
    std::vector<Container> open;
    auto note = [&](int /*depth*/, json::parse_event_t event, json& parsed) {
        using E = json::parse_event_t;
        if (event == E::object_start || event == E::array_start) {
            const bool array = event == E::array_start;
            if (open.empty()) {
                open.push_back({array ? Kind::other : Kind::top, array, "top level", 0, {}});
                return true;
            }
            const Container& parent = open.back();
            Kind kind = Kind::other;
            if (parent.kind == Kind::top && array && parent.key == "groups") {
                kind = Kind::groups;
            } else if (parent.kind == Kind::groups && !array) {
                kind = Kind::group;
            } else if (parent.kind == Kind::group && array && parent.key == "signals") {
                kind = Kind::signals;
            } else if (parent.kind == Kind::signals && !array) {
                kind = Kind::signal;
            }
            std::string path = parent.array ? parent.path + "[" + std::to_string(parent.index) + "]"
                               : parent.kind == Kind::top ? parent.key
                                                          : parent.path + "." + parent.key;
            open.push_back({kind, array, std::move(path), 0, {}});
        } else if (event == E::object_end || event == E::array_end) {
            open.pop_back();
            if (!open.empty()) {
                ++open.back().index;
            }
        } else if (event == E::key && !open.empty()) {
            Container& object = open.back();
            object.key = parsed.get<std::string>();
            const std::set<std::string>* known = object.kind == Kind::top      ? &top_keys
                                                 : object.kind == Kind::group  ? &group_keys
                                                 : object.kind == Kind::signal ? &signal_keys
                                                                               : nullptr;
            if (known != nullptr && known->count(object.key) == 0) {
                unknown.push_back(
                    {line, object.path, object.key, config::nearest_key(object.key, *known)});
            }
        } else if (event == E::value && !open.empty()) {
            ++open.back().index;
        }
        return true;
    };
    return json::parse(LineCountingIterator(text.data(), &line),
                       LineCountingIterator(text.data() + text.size(), &line), note);
}

// nlohmann reports the byte count read up to the failing character; editors
// think in lines and columns, so translate.
std::string parse_error_place(const std::string& text, std::size_t byte) {
    const std::size_t end = std::min(byte > 0 ? byte - 1 : 0, text.size());
    std::size_t line = 1;
    std::size_t line_start = 0;
    for (std::size_t i = 0; i < end; ++i) {
        if (text[i] == '\n') {
            ++line;
            line_start = i + 1;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(end - line_start + 1);
}

// The reason part of a parse_error's what(), without nlohmann's prefix and
// its own position.
std::string parse_error_reason(const json::parse_error& e) {
    std::string what = e.what();
    const auto at = what.find("parse error");
    if (at != std::string::npos) {
        const auto colon = what.find(": ", at);
        if (colon != std::string::npos) {
            return what.substr(colon + 2);
        }
    }
    return what;
}

// The file's content, or the system's reason why it cannot be read.
std::optional<std::string> read_text(const std::string& path, std::string& error) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                         &std::fclose);
    if (!file) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    std::string text;
    char buffer[8192];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
        text.append(buffer, n);
    }
    if (std::ferror(file.get()) != 0) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    return text;
}

const char* error_name(com::PbInternalDeserializationError error) {
    using E = com::PbInternalDeserializationError;
    switch (error) {
        case E::no_error:
            return "no error";
        case E::frame_too_short:
            return "frame too short";
        case E::header_undecodable:
            return "header undecodable";
        case E::protocol_not_used:
            return "protocol type not used";
        case E::header_length_mismatch:
            return "header length mismatch";
        case E::body_undecodable:
            return "body undecodable";
    }
    return "unknown error";
}

Signal* find_signal(std::vector<Signal>& signals, const std::string& name) {
    auto it = std::find_if(signals.begin(), signals.end(),
                           [&name](const Signal& s) { return s.name() == name; });
    return it == signals.end() ? nullptr : &*it;
}

}  // namespace

const Signal& SignalGroup::signal(const std::string& name) const {
    static const Signal none;
    if (std::find(m_carried.begin(), m_carried.end(), name) == m_carried.end()) {
        return none;
    }
    auto it = std::find_if(m_definitions.begin(), m_definitions.end(),
                           [&name](const Signal& s) { return s.name() == name; });
    return it == m_definitions.end() ? none : *it;
}

bool SignalGroup::set_signal_data(const std::string& name, const std::vector<std::uint8_t>& data) {
    Signal* signal = find_signal(m_definitions, name);
    if (signal == nullptr || data.size() > signal->size()) {
        return false;
    }
    signal->set_data(data);
    if (std::find(m_carried.begin(), m_carried.end(), name) == m_carried.end()) {
        m_carried.push_back(name);
    }
    return true;
}

SignalAdapter& SignalAdapter::instance() {
    static SignalAdapter adapter = [] {
        SignalAdapter loaded;
        const char* env = std::getenv("KIRN_RT_CATALOGUE");
        loaded.load(env != nullptr && *env != '\0' ? env : default_catalogue_path);
        return loaded;
    }();
    return adapter;
}

bool SignalAdapter::load(const std::string& path) {
    m_groups.clear();
    m_index.clear();
    const std::string name = "Signal catalogue '" + path + "'";

    std::string read_error;
    const auto text = read_text(path, read_error);
    if (!text) {
        logging::ERROR << catalogue_log() << name << " cannot be read: " << read_error;
        return false;
    }

    std::vector<GroupDefinition> definitions;
    std::vector<UnknownKey> unknown_keys;
    try {
        definitions = parse_catalogue(parse_noting_unknown_keys(*text, unknown_keys));
    } catch (const json::parse_error& e) {
        logging::ERROR << catalogue_log() << name << ": not valid JSON at "
                       << parse_error_place(*text, e.byte) << ": " << parse_error_reason(e);
        return false;
    } catch (const SchemaError& e) {
        logging::ERROR << catalogue_log() << name << ": " << e.path << ": " << e.reason;
        return false;
    } catch (const std::exception& e) {
        logging::ERROR << catalogue_log() << name << ": " << e.what();
        return false;
    }

    for (const auto& u : unknown_keys) {
        auto warning = logging::WARNING << catalogue_log();
        warning << name << " line " << u.line << ": " << u.path << ": unknown key '" << u.key
                << "' is ignored";
        if (!u.meant.empty()) {
            warning << " (did you mean " << u.meant << "?)";
        }
    }

    // Allowed, but only the first topic of an id receives its RT records:
    // say which topics clash, the daemon's own line cannot.
    std::unordered_map<std::uint32_t, const GroupDefinition*> first_of_id;
    for (std::size_t i = 0; i < definitions.size(); ++i) {
        const GroupDefinition& def = definitions[i];
        if (def.id == 0) {
            // Loads all the same: other programs read such files.
            logging::WARNING << catalogue_log() << name << ": groups[" << i << "]: '" << def.topic
                             << "' has RT id 0, which every lookup of its topic returns for"
                             << " \"not found\": no client can request it or write to it";
        }
        auto [first, inserted] = first_of_id.try_emplace(def.id, &def);
        if (!inserted) {
            logging::WARNING << catalogue_log() << name << ": groups[" << i << "]: RT id " << def.id
                             << " of '" << def.topic << "' is already the id of '"
                             << first->second->topic << "'";
        }
    }

    m_groups.reserve(definitions.size());
    for (auto& def : definitions) {
        SignalGroup group;
        group.m_topic = std::move(def.topic);
        group.m_id = def.id;
        group.m_retained = def.retained;
        group.m_size = def.size;
        group.m_definitions.reserve(def.signals.size());
        for (auto& s : def.signals) {
            group.m_definitions.emplace_back(std::move(s.name), s.offset, s.size);
        }
        m_index.emplace(group.m_topic, m_groups.size());  // keeps the first of a topic
        m_groups.push_back(std::move(group));
    }
    logging::INFO << catalogue_log() << name << ": " << m_groups.size() << " signal groups";
    return true;
}

std::vector<std::string> SignalAdapter::get_topics(const std::string& filter) const {
    std::vector<std::string> topics;
    for (const auto& group : m_groups) {
        if (group.m_topic.compare(0, filter.size(), filter) == 0) {
            topics.push_back(group.m_topic);
        }
    }
    return topics;
}

unsigned SignalAdapter::map_topic_to_rtid(const std::string& topic) const {
    const SignalGroup* group = find_group(topic);
    return group != nullptr ? group->m_id : 0;
}

bool SignalAdapter::is_topic_retained(const std::string& topic) const {
    const SignalGroup* group = find_group(topic);
    return group != nullptr && group->m_retained;
}

const SignalGroup* SignalAdapter::find_group(const std::string& topic) const {
    auto it = m_index.find(topic);
    return it != m_index.end() ? &m_groups[it->second] : nullptr;
}

std::tuple<bool, SignalGroup, std::string> SignalAdapter::unpack(const std::string& topic,
                                                                 const com::Message& msg) const {
    auto fail = [&topic](std::string error) {
        // The reason a client's message is refused; its sender needs it.
        logging::WARNING << catalogue_log() << "Unpacking for '" << topic << "': " << error;
        return std::make_tuple(false, SignalGroup{}, std::move(error));
    };
    const SignalGroup* definition = find_group(topic);
    if (definition == nullptr) {
        return fail("Topic '" + topic + "' is not in the signal catalogue");
    }
    com::PbInternalMessageAdapter<pb::SignalGroupData> adapter;
    auto decoded = adapter.deserialize(msg);
    if (!decoded.success) {
        return fail("Frame for topic '" + topic + "' does not decode: error " +
                    std::to_string(static_cast<int>(decoded.error)) + " (" +
                    error_name(decoded.error) + ")");
    }

    SignalGroup group = *definition;
    if (decoded.body.has_timestamp()) {
        group.m_timestamp = decoded.body.timestamp();
    } else {
        // deserialize has already checked that the header decodes.
        pb::QTXHeader header;
        header.ParseFromArray(msg.payload.data(), static_cast<int>(com::qtx_header_length));
        group.m_timestamp = header.timestamp();
    }
    for (const auto& value : decoded.body.signals()) {
        const Signal* signal = find_signal(group.m_definitions, value.name());
        if (signal == nullptr) {
            return fail("Signal '" + value.name() + "' is not defined for topic '" + topic + "'");
        }
        if (value.data().size() > signal->size()) {
            return fail("Signal '" + value.name() + "' of topic '" + topic + "': value of " +
                        std::to_string(value.data().size()) + " bytes exceeds its size " +
                        std::to_string(signal->size()));
        }
        group.set_signal_data(value.name(),
                              std::vector<std::uint8_t>(value.data().begin(), value.data().end()));
    }
    return {true, std::move(group), std::string()};
}

std::string SignalAdapter::add_padding(const SignalGroup& group) const {
    std::string image(group.size(), '\0');
    for (const auto& name : group.signal_names()) {
        const Signal& signal = group.signal(name);
        if (signal.offset() >= image.size()) {
            continue;
        }
        // The catalogue guarantees the fit; the clamp keeps a hand-made group safe.
        const std::size_t n = std::min(signal.data().size(), image.size() - signal.offset());
        std::copy_n(signal.data().begin(), n, image.begin() + static_cast<long>(signal.offset()));
    }
    return image;
}

}  // namespace ecu::kora::rt
