#pragma once

#include <memory>
#include <string>

namespace orvex {

class CXOrvexFeedback;

/// The role of the tool channel, for those who have something to show to a tool that listens.
/// Threading: callable from any thread; what is sent goes out later, and only while somebody still listens.
class FlusherListener {
public:
    virtual ~FlusherListener() = default;

    /// Cheap: for senders to ask before they copy.
    [[nodiscard]] virtual bool hasReceivingStreamListener() const = 0;
    [[nodiscard]] virtual bool hasSendingStreamListener() const = 0;

    /// A record as it came.
    virtual void sendDataToReceivingStreamListener(std::shared_ptr<const CXOrvexFeedback> record) = 0;
    /// The compressed bytes of an upload.
    virtual void sendDataToSendingStreamListener(std::string bytes) = 0;
};

}  // namespace orvex
