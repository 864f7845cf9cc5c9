// SPDX-License-Identifier: LGPL-2.1-or-later
// image: making and reading HPM.1 image files.
#include "common/files.hpp"
#include "frame/command.hpp"
#include "frame/report.hpp"
#include "names/hpm1-image.hpp"
#include "names/hpm1-names.hpp"

#include <bdbus/upgrade_agent.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>

namespace bdbusctl
{

namespace
{

/** A pipe would keep the program waiting, and a device is hardly meant. */
void require_regular(const std::string &intent, const std::string &path)
{
    std::error_code absent;
    const auto status = std::filesystem::status(path, absent);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        throw failure(intent + path + ": not a regular file");
    }
}

std::string read_regular(const std::string &path, uint64_t largest)
{
    require_regular("cannot read ", path);
    try {
        const bool fits = std::filesystem::file_size(path) <= largest;
        std::string content = fits ? bdbus_tools::read_file(path, static_cast<size_t>(largest)) : "";
        if (fits && content.size() <= largest) {
            return content;
        }
    } catch (const std::system_error &error) {
        throw failure("cannot read " + path + ": " + error.code().message());
    }
    throw failure("cannot read " + path + ": over " + size_text(largest));
}

void write_regular(const std::string &path, std::string_view content)
{
    require_regular("cannot write ", path);
    try {
        bdbus_tools::write_file(path, content);
    } catch (const std::system_error &error) {
        throw failure("cannot write " + path + ": " + error.code().message());
    }
}

std::array<uint8_t, 2> parse_short_version(const std::string &text)
{
    const auto version = parse_version(text);
    return {version[0], version[1]};
}

uint8_t parse_timeout(const std::string &text)
{
    const uint64_t seconds = parse_number(text, 0, UINT8_MAX * hpm1_timeout_unit_s);
    return static_cast<uint8_t>((seconds + hpm1_timeout_unit_s - 1) / hpm1_timeout_unit_s);
}

uint32_t parse_time(const std::string &text)
{
    tm date{};
    if (const char *end = strptime(text.c_str(), date_format, &date); end != nullptr && *end == '\0') {
        return static_cast<uint32_t>(timegm(&date));
    }
    return static_cast<uint32_t>(parse_number(text, 0, UINT32_MAX));
}

uint32_t default_time()
{
    const char *reproducible = getenv("SOURCE_DATE_EPOCH");
    return reproducible != nullptr ? parse_time(reproducible) : static_cast<uint32_t>(time(nullptr));
}

uint8_t parse_component_number(const std::string &text)
{
    return static_cast<uint8_t>(parse_number(text, 0, BDBUS_UPGRADE_AGENT_COMPONENTS - 1));
}

/** Hex is a mask, decimal a list of component numbers. */
uint8_t parse_components(const std::string &text)
{
    if (text.starts_with("0x")) {
        return static_cast<uint8_t>(parse_number(text, 1, UINT8_MAX));
    }
    uint8_t mask = 0;
    for (const auto &number : CLI::detail::split(text, ',')) {
        mask = static_cast<uint8_t>(mask | 1U << parse_component_number(number));
    }
    return mask;
}

struct component_source {
    uint8_t id = 0;
    std::string file;
    std::optional<hpm1_version> version;
    std::string description;
};

/**
 * ID=FILE[,version=V][,description=TEXT]; the keys are looked for from the right, so that file names may hold commas.
 */
component_source parse_component(std::string text)
{
    component_source source;
    const size_t id_end = text.find('=');
    if (id_end == std::string::npos) {
        throw std::invalid_argument("'" + one_line(text) + "' is not ID=FILE[,version=V][,description=TEXT]");
    }
    source.id = parse_component_number(text.substr(0, id_end));
    const auto cut = [&text](const std::string &key) {
        const size_t start = text.rfind("," + key + "=");
        if (start == std::string::npos) {
            return std::string();
        }
        const size_t value = start + key.size() + 2;
        const size_t end = std::min(text.find(key == "version" ? ",description=" : ",version=", value), text.size());
        std::string found = text.substr(value, end - value);
        text.erase(start, end - start);
        return found;
    };
    if (const std::string version = cut("version"); !version.empty()) {
        source.version = parse_version(version);
    }
    source.description = cut("description");
    source.file = text.substr(id_end + 1);
    if (source.description.empty()) {
        source.description =
            std::filesystem::path(source.file).filename().string().substr(0, hpm1_image::description_bytes - 1);
    }
    if (source.description.size() >= hpm1_image::description_bytes) {
        throw std::invalid_argument(
            format("the description has over %zu characters", hpm1_image::description_bytes - 1));
    }
    return source;
}

/** The identity is that of the simulated controller unless given. */
struct create_arguments {
    create_arguments()
    {
        head.device_id = 32;
        head.manufacturer_id = 41651;
        head.product_id = 4660;
        head.firmware = {1, 0};
    }

    hpm1_image::header head;
    std::optional<uint32_t> time;
    std::string output;
    bool self_test = false;
    bool prepend_version = false;
    std::string oem_file;
    uint8_t backup = 0;
    uint8_t prepare = 0;
    std::vector<std::string> components;
};

void declare_create(CLI::App &command, create_arguments &given)
{
    hpm1_image::header &head = given.head;
    command.add_option("-o,--output", given.output, "Image file to write")->type_name("FILE")->required();
    command
        .add_option("-c,--component", given.components,
                    "Firmware of component ID (0 to 7); its version is the image's unless given; repeatable")
        ->type_name("ID=FILE[,version=V][,description=TEXT]")
        ->allow_extra_args(false)
        ->required();
    add_number(command, "--device-id", head.device_id, format("Device ID [%u]", head.device_id))->type_name("N");
    add_number(command, "--manufacturer-id", head.manufacturer_id, format("Manufacturer ID [%u]", head.manufacturer_id),
               0, 0xFFFFFF)
        ->type_name("N");
    add_number(command, "--product-id", head.product_id, format("Product ID [%u]", head.product_id))->type_name("N");
    add_parsed(command, "--version", head.firmware, parse_version,
               "Firmware version [" + version_text(head.firmware) + "]")
        ->type_name("MAJOR.MINOR[.AUX]");
    add_parsed(command, "--earliest", head.earliest, parse_short_version,
               "Oldest firmware that can be upgraded [" + version_text(head.earliest) + "]")
        ->type_name("MAJOR.MINOR");
    command.add_flag("--self-test", given.self_test, "A self test follows activation");
    add_parsed(command, "--self-test-timeout", head.self_test_timeout, parse_timeout, "Rounded up to 5 s [0]")
        ->type_name("SECONDS");
    add_parsed(command, "--rollback-timeout", head.rollback_timeout, parse_timeout, "Rounded up to 5 s [0]")
        ->type_name("SECONDS");
    command.add_option("--oem", given.oem_file, "OEM data of the header")->type_name("FILE");
    add_parsed(command, "--time", given.time, parse_time,
               "Time stamp: seconds since 1970, or YYYY-MM-DDTHH:MM:SSZ [SOURCE_DATE_EPOCH, or now]")
        ->type_name("TIME");
    add_parsed(command, "--backup", given.backup, parse_components, "Back up first: numbers 0,2 or a mask 0x05")
        ->type_name("COMPONENTS");
    add_parsed(command, "--prepare", given.prepare, parse_components, "Prepare first: numbers 0,2 or a mask 0x05")
        ->type_name("COMPONENTS");
    command.add_flag("--prepend-version", given.prepend_version, "Put the six version bytes before each firmware");
}

component_source require_component(const std::string &text)
{
    try {
        return parse_component(text);
    } catch (const std::invalid_argument &reason) {
        throw failure(std::string("--component: ") + reason.what(), exit_status::usage);
    }
}

std::vector<hpm1_image::payload> read_payloads(const create_arguments &given)
{
    std::vector<hpm1_image::payload> payloads;
    uint8_t mask = 0;
    constexpr uint64_t around_payloads = uint64_t{128} * 1024; // header, OEM data and records, generously
    uint64_t room = UINT32_MAX - around_payloads;
    for (const auto &text : given.components) {
        const component_source source = require_component(text);
        if ((mask >> source.id & 1) != 0) {
            throw failure(format("--component: %u is given twice", source.id), exit_status::usage);
        }
        mask = static_cast<uint8_t>(mask | 1U << source.id);

        hpm1_image::payload part{source.id, source.version.value_or(given.head.firmware), source.description,
                                 read_regular(source.file, room)};
        if (given.prepend_version) {
            part.data.insert(part.data.begin(), part.firmware.begin(), part.firmware.end());
        }
        room -= std::min<uint64_t>(room, part.data.size());
        payloads.push_back(std::move(part));
    }
    if (((given.backup | given.prepare) & ~mask) != 0) {
        throw failure("--backup, --prepare: a component that the image does not hold", exit_status::usage);
    }
    return payloads;
}

report new_record_table(const session &run)
{
    return report(run, {{"offset", "OFFSET", true},
                        {"action", "ACTION"},
                        {"components", "COMPONENTS"},
                        {"components_raw"},
                        {"version", "VERSION"},
                        {"version_hex"},
                        {"description", "DESCRIPTION"},
                        {"data_offset", "DATA AT", true},
                        {"length", "LENGTH", true}});
}

report record_table(const session &run, const hpm1_image::image &image)
{
    report table = new_record_table(run);
    for (const auto &record : image.records) {
        const std::string action(action_name(record.action));
        const cell components = components_cell(record.components);
        if (record.is_upload()) {
            table.add({record.offset, action, components, record.components, version_text(record.firmware),
                       hex_digits(record.firmware), record.description, record.data_offset, record.length});
        } else {
            table.add({record.offset, action, components, record.components, cell::none(), cell::none(), cell::none(),
                       cell::none(), cell::none()});
        }
    }
    return table;
}

void show_image(const session &run, const std::string &path, std::span<const uint8_t> file,
                const hpm1_image::image &image)
{
    const hpm1_image::header &head = image.head;
    const report records = record_table(run, image);
    record shown;
    shown.add("file", "File", path);
    shown.add("size", "Size", file.size());
    shown.add("device_id", "Device ID", {format("%u (0x%02x)", head.device_id, head.device_id), head.device_id});
    shown.add("manufacturer_id", "Manufacturer ID",
              {format("%u (0x%06x)", head.manufacturer_id, head.manufacturer_id), head.manufacturer_id});
    shown.add("product_id", "Product ID", {format("%u (0x%04x)", head.product_id, head.product_id), head.product_id});
    shown.add("version", "Firmware version", version_text(head.firmware));
    shown.hide("version_hex", hex_digits(head.firmware));
    shown.add("earliest", "Earliest compatible", version_text(head.earliest));
    shown.add("time", "Time stamp", {time_text(head.time), head.time});
    shown.hide("time_text", time_text(head.time));
    shown.add("self_test", "Self test follows", (head.capabilities & hpm1_image::self_test_follows) != 0);
    shown.add("capabilities_raw", "Capability byte", {hex_text(head.capabilities), head.capabilities});
    shown.add("components", "Components", components_cell(head.components));
    shown.hide("components_raw", head.components);
    shown.add("self_test_timeout_s", "Self-test timeout", timeout_cell(head.self_test_timeout));
    shown.add("rollback_timeout_s", "Rollback timeout", timeout_cell(head.rollback_timeout));
    shown.add("inaccessibility_timeout_s", "Inaccessible up to", timeout_cell(head.inaccessibility_timeout));
    shown.add("oem_bytes", "OEM data", {format("%zu B", head.oem_data.size()), head.oem_data.size()});
    const bool intact = image.faults.empty() && hpm1_image::digest_holds(file);
    shown.add("intact", "Intact", {intact ? "yes" : "no (see bdbusctl image verify)", intact, intact ? "" : "red"});
    shown.hide("records", records.to_json());
    shown.show(run);
    if (!run.wants_json()) {
        puts("");
        records.show();
    }
}

void create(const session &run, const create_arguments &given)
{
    hpm1_image::header head = given.head;
    head.time = given.time ? *given.time : default_time();
    if (given.self_test) {
        head.capabilities = hpm1_image::self_test_follows;
    }
    if (!given.oem_file.empty()) {
        const std::string content = read_regular(given.oem_file, UINT16_MAX);
        head.oem_data.assign(content.begin(), content.end());
    }
    const std::string file = hpm1_image::build(head, given.backup, given.prepare, read_payloads(given));
    write_regular(given.output, file);
    if (run.wants_json()) {
        show_image(run, given.output, bytes_of(file), hpm1_image::read(bytes_of(file)));
    } else {
        run.remark(format("%s: %zu bytes", given.output.c_str(), file.size()));
    }
}

std::string fault_text(const hpm1_image::fault &fault)
{
    return format("%s (at offset %zu)", fault.text.c_str(), fault.offset);
}

struct file_argument {
    std::string path;
};

void declare_file(CLI::App &command, file_argument &given)
{
    command.add_option("FILE", given.path, "HPM.1 image file")->type_name("")->required();
}

void info(const session &run, const file_argument &given)
{
    const std::string file = read_regular(given.path, UINT32_MAX);
    const hpm1_image::image image = hpm1_image::read(bytes_of(file));
    if (!image.complete) {
        throw failure(given.path + ": " + fault_text(image.faults.back()));
    }
    show_image(run, given.path, bytes_of(file), image);
}

const char *integrity_name(int32_t result)
{
    constexpr std::array names{
        "intact",           "digest not computed", "digest not computed",    "digest not computed",
        "wrong MD5 digest", "no HPM.1 signature",  "unknown header version", "wrong header checksum",
        "truncated"};
    return result <= 0 && result > -static_cast<int32_t>(names.size()) ? names.at(static_cast<size_t>(-result))
                                                                       : "unknown fault";
}

int32_t check_integrity(const session &run, const std::string &path)
{
    return run
        .observe([&] {
            auto *context = bdbus_upgrade_agent_initialization(path.c_str());
            const int32_t result = bdbus_upgrade_agent_validate_image_integrity(context);
            bdbus_upgrade_agent_end(context);
            return result;
        })
        .result;
}

failure image_failure(const std::string &path, int32_t integrity, const std::vector<hpm1_image::fault> &found)
{
    std::vector<std::string> reasons;
    if (integrity != 0) {
        reasons.push_back(format("%s (%d)", integrity_name(integrity), integrity));
    }
    json faults = json::array();
    for (const auto &fault : found) {
        reasons.push_back(fault_text(fault));
        faults.push_back({{"offset", fault.offset}, {"message", fault.text}});
    }
    failure error(path + ": " + join(reasons, "; "));
    error.error["integrity"] = integrity;
    error.error["integrity_name"] = integrity_name(integrity);
    error.error["faults"] = std::move(faults);
    return error;
}

/** Makes the check of the upgrade agent, and looks at all records besides. */
void verify(const session &run, const file_argument &given)
{
    const std::string file = read_regular(given.path, UINT32_MAX);
    const hpm1_image::image image = hpm1_image::read(bytes_of(file));
    const int32_t integrity = check_integrity(run, given.path);
    if (integrity != 0 || !image.faults.empty()) {
        throw image_failure(given.path, integrity, image.faults);
    }
    record shown;
    shown.add("file", "File", given.path);
    shown.add("intact", "Intact", true);
    shown.add("size", "Size", file.size());
    shown.add("records", "Records", image.records.size());
    if (run.wants_json()) {
        shown.show(run);
    } else {
        run.remark(format("%s: intact, %zu bytes, %zu records", given.path.c_str(), file.size(), image.records.size()));
    }
}

} // namespace

void add_image(CLI::App &program, session &run)
{
    add_family(program, run, "image", "HPM.1 image files: make and read them", [](family &image) {
        image.verb("create", "Make an image from firmware files", declare_create, create);
        image.verb("info", "Show an image's header and records", declare_file, info);
        image.verb("verify", "Check an image: digest, checksums, lengths", declare_file, verify);
    });
}

} // namespace bdbusctl
