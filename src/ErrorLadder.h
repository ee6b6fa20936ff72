// The failure handling that the operations of the stages share: no exception leaves an operation, a
// device failure and any other failure each become a status and a fixed last-error text, and an
// operation used before init answers "no init!".
#pragma once

#include <string>

#include "DeviceLayer.h"
#include "RunStop.h"

namespace SurfaceReconstruction {

// What a failure leaves behind: the status returned and the last-error text (null keeps the text).
struct Failure {
    int status;
    const char* text;
};

// Runs `body`, which returns a status. A DeviceError (reported on standard error where it was thrown)
// becomes `device`, any other exception `other`; a stop asked of the run goes on up to the engine.
template <class Body>
int runGuarded(std::string& last_error, Failure device, Failure other, Body&& body) {
    try {
        return body();
    } catch (const RunStopped&) {
        throw;
    } catch (const DeviceError&) {
        if (device.text != nullptr) last_error = device.text;
        return device.status;
    } catch (...) {
        if (other.text != nullptr) last_error = other.text;
        return other.status;
    }
}

// The same with one answer for every exception.
template <class Body>
int runGuarded(std::string& last_error, Failure any, Body&& body) {
    return runGuarded(last_error, any, any, static_cast<Body&&>(body));
}

// True, with the last error set, when a stage is used before its init.
inline bool refuseBeforeInit(bool inited, std::string& last_error, const char* text = "no init!") {
    if (inited) return false;
    last_error = text;
    return true;
}

}  // namespace SurfaceReconstruction
