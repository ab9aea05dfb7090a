// tarnctl shm: shared memory objects and heaps of this machine.

#include "directory.h"
#include "output.h"
#include "owner.h"

#include "tarn_dir.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace tarnctl
{
namespace
{

using shm_owner = owner<TARN_SHM, tarn_shm_destroy>;

constexpr std::string_view file_prefix = "TARN_SHM_";

/** Where the backing files are. */
std::string root()
{
    return tarn_dir_is_exist("/dev/shm") ? "/dev/shm" : "/tmp";
}

std::string file_of(const std::string &name)
{
    return root() + "/" + std::string(file_prefix) + name;
}

bool is_running(uint32_t pid)
{
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

/** @param none  for a creator that is gone, or whose locks are another container's */
std::string creator_text(int pid, const char *none)
{
    return pid != 0 ? std::to_string(pid) : none;
}

void add_creator(json &line, int pid)
{
    line.key("creator");
    (void)(pid != 0 ? line.number(pid) : line.null());
}

// ---- list ---------------------------------------------------------------------------------------

struct object
{
    std::string name;
    bool is_open = false; ///< it has a segment
    bool is_heap = false;
    uint32_t size = 0;
    int creator = 0; ///< 0: gone, or not to be seen
    uint32_t users = 0;
};

object look_at(const std::string &name)
{
    object made = {};
    made.name = name;
    made.creator = lock_holder(file_of(name));
    const shm_owner shm(tarn_shm_open(name.c_str()));
    made.is_open = shm != nullptr;
    made.size = shm ? tarn_shm_size(shm.get()) : 0;
    tarn_shmx_look look = {};
    look.size = sizeof look;
    made.is_heap = shm && tarn_shmx_look_at(name.c_str(), &look, nullptr, 0) == 0;
    made.users = look.user_count;
    return made;
}

const char *kind_of(const object &seen)
{
    return seen.is_heap ? "heap" : seen.is_open ? "object" : "nothing";
}

void print_json(const std::vector<object> &all)
{
    json line;
    line.begin_array();
    for (const object &seen : all)
    {
        line.begin_object().key("name").text(seen.name).key("kind").text(kind_of(seen));
        add_creator(line.key("size").number(seen.size), seen.creator);
        line.key("users").number(seen.users).end_object();
    }
    line.end_array().print();
}

void print_table(const std::vector<object> &all)
{
    table rows({"NAME", "KIND", ">SIZE", ">CREATOR", ">USERS"});
    for (const object &seen : all)
    {
        rows.add({escaped(seen.name), kind_of(seen), std::to_string(seen.size),
                  creator_text(seen.creator, "-"),
                  seen.is_heap ? std::to_string(seen.users) : "-"});
    }
    rows.print();
}

int list(const arguments &given)
{
    std::vector<object> all;
    for (const std::string &file : names_in(root()))
    {
        if (file.starts_with(file_prefix))
        {
            all.push_back(look_at(file.substr(file_prefix.size())));
        }
    }
    given.has("json") ? print_json(all) : print_table(all);
    return status_ok;
}

// ---- info ---------------------------------------------------------------------------------------

/** What a heap's numbers come to. */
struct heap_sums
{
    uint64_t reclaim = 0; ///< in free blocks of the classes
    uint64_t free_blocks = 0;

    explicit heap_sums(const tarn_shmx_look &look)
    {
        for (size_t i = 0; i < std::size(look.free_count); ++i)
        {
            reclaim += uint64_t{look.free_count[i]} * look.class_size[i];
            free_blocks += look.free_count[i];
        }
        free_blocks += look.large_count;
    }
};

void print_heap_json(const std::string &name, const tarn_shmx_look &look,
                     std::span<const tarn_shmx_user> users)
{
    const heap_sums sums(look);
    json line;
    line.begin_object().key("name").text(name).key("kind").text("heap");
    add_creator(line, lock_holder(file_of(name)));
    line.key("data_size").number(look.data_size).key("meta_size").number(look.meta_zone_size);
    line.key("used").number(look.used_size).key("unused").number(look.data_size - look.used_size);
    line.key("reclaim").number(sums.reclaim).key("max_users").number(look.max_user_count);
    line.key("users").begin_array();
    for (const tarn_shmx_user &user : users)
    {
        line.begin_object().key("id").number(user.user_id).key("pid").number(user.process_id);
        line.key("running").truth(is_running(user.process_id)).end_object();
    }
    line.end_array().key("slots").number(look.slot_count).key("busy_slots").number(look.busy_slots);
    line.key("free_blocks").begin_array();
    for (size_t i = 0; i < std::size(look.free_count); ++i)
    {
        line.begin_object().key("size").number(look.class_size[i]);
        line.key("count").number(look.free_count[i]).end_object();
    }
    line.end_array().key("free_large_blocks").number(look.large_count).end_object().print();
}

std::string percent_of(uint64_t part, uint64_t whole)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f%%",
                        whole != 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole)
                                   : 0.0);
    return text;
}

void print_heap(const std::string &name, const tarn_shmx_look &look,
                std::span<const tarn_shmx_user> users)
{
    const heap_sums sums(look);
    const int creator = lock_holder(file_of(name));
    const auto row = [](const char *what, const std::string &value) {
        (void)std::fprintf(out(), "%-12s %s\n", what, value.c_str());
    };
    const auto bytes = [&look](uint64_t value) {
        return std::to_string(value) + " bytes, " + percent_of(value, look.data_size);
    };
    row("name", escaped(name));
    row("kind", "heap");
    row("creator", creator_text(creator, "gone, or not to be seen from here"));
    row("data zone", std::to_string(look.data_size) + " bytes");
    row("meta zone", std::to_string(look.meta_zone_size) + " bytes");
    row("used", bytes(look.used_size));
    row("of it free", bytes(sums.reclaim) + " in " + std::to_string(sums.free_blocks) +
                          " blocks, large ones not counted in");
    row("unused", bytes(look.data_size - look.used_size));
    row("slots",
        std::to_string(look.busy_slots) + " of " + std::to_string(look.slot_count) + " busy");
    row("users", std::to_string(look.user_count) + " of " + std::to_string(look.max_user_count));
    if (!users.empty())
    {
        table rows({">USER", ">PID", "STATE"});
        for (const tarn_shmx_user &user : users)
        {
            rows.add({std::to_string(user.user_id), std::to_string(user.process_id),
                      is_running(user.process_id) ? "running" : "gone"});
        }
        rows.print();
    }
}

int print_object(const arguments &given, const std::string &name)
{
    const object seen = look_at(name);
    if (!seen.is_open)
    {
        return failed("cannot open '" + shown(name) + "': see 'tarnctl shm list'");
    }
    if (given.has("json"))
    {
        json line;
        line.begin_object().key("name").text(name).key("kind").text("object");
        add_creator(line.key("size").number(seen.size), seen.creator);
        line.end_object().print();
        return status_ok;
    }
    (void)std::fprintf(out(), "name     %s\nkind     object\ncreator  %s\nsize     %u bytes\n",
                       escaped(name).c_str(),
                       creator_text(seen.creator, "gone, or not to be seen from here").c_str(),
                       seen.size);
    return status_ok;
}

int info(const arguments &given)
{
    const std::string name = given.operands()[0];
    if (name.empty() || name.size() >= TARN_NAME_MAX || name.find('/') != std::string::npos)
    {
        return given.wrong_operand(0, name);
    }
    tarn_shmx_look look = {};
    look.size = sizeof look;
    std::vector<tarn_shmx_user> users(256);
    switch (
        tarn_shmx_look_at(name.c_str(), &look, users.data(), static_cast<uint32_t>(users.size())))
    {
    case 0:
        users.resize(std::min<size_t>(users.size(), look.user_count));
        given.has("json") ? print_heap_json(name, look, users) : print_heap(name, look, users);
        return status_ok;
    case -1:
        return failed("there is no shared memory object '" + shown(name) +
                      "': see 'tarnctl shm list'");
    case -3:
        return failed("the lock of '" + shown(name) +
                      "' cannot be had: its holder hangs, or something has written over it");
    default:
        return print_object(given, name);
    }
}

constexpr operand info_operands[] = {
    {"NAME", "the name of a heap or object, 1 to 107 characters without '/'"}};
constexpr option options[] = {json_option};

} // namespace

const command shm_list_command = {
    "shm",   "list", "List the shared memory objects and heaps of this machine", nullptr, {},
    options, list,
};

const command shm_info_command = {
    "shm",   "info",        "Print a shared heap's statistics, its users and its request slots",
    nullptr, info_operands, options,
    info,
};

} // namespace tarnctl
