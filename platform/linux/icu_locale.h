#pragma once

#include <functional>
#include <string>

#include "platform/locale.h"

namespace orvex::platform {

/// The locale of the environment, through ICU: `LC_ALL`, `LC_MESSAGES`, `LANG`, the first that is set; languages from
/// `LANGUAGE`; the time zone from `TZ`, else the system's; the keyboard from `XKB_DEFAULT_LAYOUT`. A locale name is
/// read as locale(7) has it, "sr_RS.UTF-8@latin"; of the modifiers only those that name a script count.
///
/// Read while constructed, and again by `refresh`: about 2 ms the first time, which loads ICU's data.
class IcuLocale : public LocaleService {
public:
    /// The value of an environment variable; empty when it is not set.
    using Environment = std::function<std::string(const char* variable)>;

    IcuLocale();  ///< over the process's own environment
    explicit IcuLocale(Environment environment);

    /// Reads everything again. One call at a time.
    void refresh();

private:
    const Environment _environment;
};

}  // namespace orvex::platform
