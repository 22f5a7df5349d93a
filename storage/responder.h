/*
 * From a frame to its reply: the service without its sockets.
 *
 * respond() is for one thread; reload() and readMachine() may be called beside it.
 */
#pragma once

#include "answers.h"
#include "control.h"
#include "machine.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace storage {

struct Reply {
    int32_t result;
    Payload payload;
    std::chrono::milliseconds delay{0};
};

class Responder {
public:
    using Machine = std::vector<Interface>;
    // The machine's interfaces as they are now; throws a std::exception where they cannot be told.
    using MachineReader = std::function<Machine()>;

    // An empty path: no data, every list is empty. Throws std::runtime_error for a file that is refused.
    explicit Responder(std::string dataFile, MachineReader machineReader = readMachineInterfaces);

    // Nothing when the request is to stay without a reply.
    std::optional<Reply> respond(const host::FrameHeader &header, Request request);

    // Takes the data file anew, as a whole; one that is refused changes nothing but the status. False then, with the
    // reason in the log.
    bool reload();

    // Once somebody will call readMachine at every change of the machine's interfaces, they are not read at every
    // question.
    void followMachine();
    void readMachine();

private:
    Reply control(uint32_t opcode, Request request);
    std::optional<Reply> ask(uint32_t type, Request request);
    Answer build(uint32_t type, Request request);
    void setFault(const FaultRequest &request);
    QuestionState *stateOf(uint32_t type);
    std::shared_ptr<const Machine> machineFor(const Data &data);

    const std::string dataFile_;
    const MachineReader machineReader_;
    std::vector<QuestionState> questions_; // of the thread that responds

    std::mutex lock_; // of what follows, held for the copy of a pointer
    std::shared_ptr<const Data> data_;
    std::shared_ptr<const Machine> machine_;
    std::string error_;
    bool following_ = false;
    bool isCurrent_ = false; // machine_ needs no reading until a change; not so after a reading that failed
};

} // namespace storage
