#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "measure/subject.hpp"
#include "names.hpp"
#include "support/unique_fd.hpp"

namespace {

class SettingWrite : public Subject
{
public:
    SettingWrite()
    {
        BusError error;
        check(sd_bus_get_property_trivial(bus_.get(), kSettings, kSettingsSection, kSettings, "brightness",
                                          error.get(), 'i', &brightness_),
              "read a setting");
    }

    Clock::duration run() override
    {
        // Another value each time, and always as long.
        brightness_ = brightness_ == kFirst ? kSecond : kFirst;
        const Clock::time_point begin = Clock::now();
        BusError error;
        const int result = sd_bus_set_property(bus_.get(), kSettings, kSettingsSection, kSettings,
                                               "brightness", error.get(), "i", brightness_);
        const Clock::time_point end = Clock::now();
        check(result, error.message());
        return end - begin;
    }

private:
    static constexpr int kFirst = 40;
    static constexpr int kSecond = 41;

    BareBusPtr bus_ = check(open_bare_bus(sd_bus_open_user));
    int brightness_ = 0;
};

/** A text is complete on the disk in one file or in the other, whenever the power goes; and the old one is
 * there until then. */
class BareFileWrite : public Subject
{
public:
    BareFileWrite()
    {
        std::ifstream file(kSettingsFile);
        text_.assign(std::istreambuf_iterator<char>(file), {});
        if (text_.empty()) {
            throw MeasuringFailed("there are no settings to copy");
        }
        write_text(kPath);
    }
    ~BareFileWrite() override { unlink(kPath); }

    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        struct stat status = {};
        check(fstat(lock_.get(), &status), "look at the lock");
        unlink(kTemporary);
        unlink(kOld);
        write_text(kTemporary);
        const UniqueFd folder(open(kSettingsFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        check(link(kPath, kOld), "keep the old file");
        check(rename(kTemporary, kPath), "rename the file");
        check(fsync(folder.get()), "sync the folder");
        unlink(kOld);
        return Clock::now() - begin;
    }

private:
    static constexpr mode_t kMode = 0640;
    static constexpr const char* kPath = "/run/sim/bare.json";
    static constexpr const char* kTemporary = "/run/sim/bare.json.tmp";
    static constexpr const char* kOld = "/run/sim/bare.json.old";

    void write_text(const char* path) const
    {
        const UniqueFd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kMode));
        if (write(file.get(), text_.data(), text_.size()) != static_cast<ssize_t>(text_.size())) {
            throw MeasuringFailed("a file can not be written");
        }
        check(fsync(file.get()), "sync the file");
    }

    UniqueFd lock_{open(kSettingsFile, O_RDONLY | O_CLOEXEC)};
    std::string text_;
};

} // namespace

std::unique_ptr<Subject> make_setting_write()
{
    return std::make_unique<SettingWrite>();
}

std::unique_ptr<Subject> make_bare_file_write()
{
    return std::make_unique<BareFileWrite>();
}
