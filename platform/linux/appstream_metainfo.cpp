#include "platform/linux/appstream_metainfo.h"

#include <pugixml.hpp>

namespace orvex::platform {
namespace {

std::string withoutExtension(std::string_view identifier) {
    constexpr std::string_view extension = ".desktop";
    if (identifier.ends_with(extension)) identifier.remove_suffix(extension.size());
    return std::string(identifier);
}

}  // namespace

std::optional<AppstreamMetainfo> parseAppstreamMetainfo(std::string_view xml) {
    pugi::xml_document document;
    constexpr unsigned int options = pugi::parse_default | pugi::parse_trim_pcdata;
    if (!document.load_buffer(xml.data(), xml.size(), options)) return std::nullopt;
    auto component = document.child("component");
    if (!component) component = document.child("application");  // as it was called before AppStream 0.6
    if (!component) return std::nullopt;

    AppstreamMetainfo metainfo;
    for (const auto launchable : component.children("launchable")) {
        if (std::string_view(launchable.attribute("type").value()) == "desktop-id")
            metainfo.applications.push_back(withoutExtension(launchable.child_value()));
    }
    if (metainfo.applications.empty()) metainfo.applications.push_back(withoutExtension(component.child_value("id")));
    metainfo.version = component.child("releases").child("release").attribute("version").value();
    return metainfo;
}

}  // namespace orvex::platform
