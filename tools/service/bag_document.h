#pragma once

#include <string>
#include <string_view>

namespace orvex {

class ServedResources;

/// The bag that the server gives when it was not handed one: every endpoint below `base` ("http://127.0.0.1:8080"), the
/// resources that it has, and values that let every function of a client be tried.
std::string bagDocument(std::string_view base, const ServedResources& resources);

}  // namespace orvex
