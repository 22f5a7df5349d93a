#include "responder.h"

#include "log.h"

#include <cerrno>
#include <utility>

namespace storage {

namespace {

Payload bytesOf(const std::string &text)
{
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

std::string textOf(Request request)
{
    return {reinterpret_cast<const char *>(request.data()), request.size()};
}

bool looksAtMachine(const Data &data)
{
    return !data.addressSources.empty() || !data.interfaceSources.empty();
}

} // namespace

Responder::Responder(std::string dataFile, MachineReader machineReader)
    : dataFile_(std::move(dataFile)), machineReader_(std::move(machineReader)),
      data_(std::make_shared<Data>(dataFile_.empty() ? Data() : loadData(dataFile_))),
      machine_(std::make_shared<Machine>())
{
    for (const Question &question : questions()) {
        questions_.push_back({question.type, question.name, {}});
    }
}

std::optional<Reply> Responder::respond(const host::FrameHeader &header, Request request)
{
    switch (header.module) {
    case kCallModule:
        return ask(header.opcode, request);
    case kControlModule:
        return control(header.opcode, request);
    default:
        return Reply{-ENOENT, {}};
    }
}

bool Responder::reload()
{
    if (dataFile_.empty()) {
        STORAGE_LOG(NASCTRL_LOG_PROGRESS, "there is no data file to read anew");
        return true;
    }
    try {
        auto data = std::make_shared<const Data>(loadData(dataFile_));
        const std::scoped_lock hold(lock_);
        data_ = std::move(data);
        error_.clear();
    } catch (const std::exception &error) {
        STORAGE_LOG(NASCTRL_LOG_ERROR, "the data stays as it was: %s", error.what());
        const std::scoped_lock hold(lock_);
        error_ = error.what();
        return false;
    }
    STORAGE_LOG(NASCTRL_LOG_PROGRESS, "%s was read anew", dataFile_.c_str());
    return true;
}

void Responder::followMachine()
{
    {
        const std::scoped_lock hold(lock_);
        following_ = true;
    }
    readMachine();
}

void Responder::readMachine()
{
    try {
        auto machine = std::make_shared<const Machine>(machineReader_());
        const std::scoped_lock hold(lock_);
        machine_ = std::move(machine);
        isCurrent_ = following_;
    } catch (const std::exception &error) {
        STORAGE_LOG(NASCTRL_LOG_ERROR, "the machine's interfaces stay as they were: %s", error.what());
        const std::scoped_lock hold(lock_);
        isCurrent_ = false;
    }
}

Reply Responder::control(uint32_t opcode, Request request)
{
    if (opcode != kControlStatus && opcode != kControlFault) {
        return {-EOPNOTSUPP, {}};
    }
    if (opcode == kControlFault) {
        try {
            setFault(parseFaultRequest(textOf(request)));
        } catch (const std::runtime_error &error) {
            return {0, bytesOf(errorText(error.what()))};
        }
    }
    ServiceState state{dataFile_, {}, questions_};
    {
        const std::scoped_lock hold(lock_);
        state.error = error_;
    }
    return {0, bytesOf(statusText(state))};
}

std::optional<Reply> Responder::ask(uint32_t type, Request request)
{
    QuestionState *state = stateOf(type);
    if (state == nullptr) {
        return Reply{-EOPNOTSUPP, {}};
    }
    ++state->requests;
    const Fault fault = state->fault;
    if (fault.kind == FaultKind::timeout) {
        return std::nullopt;
    }
    if (fault.kind == FaultKind::fail) {
        return Reply{-static_cast<int32_t>(fault.value), {}};
    }
    Answer answer = build(type, request);
    if (fault.kind == FaultKind::shortAnswer && fault.value < answer.payload.size()) {
        answer.payload.resize(fault.value);
    }
    const std::chrono::milliseconds delay(fault.kind == FaultKind::slow ? fault.value : 0);
    return Reply{answer.result, std::move(answer.payload), delay};
}

Answer Responder::build(uint32_t type, Request request)
{
    std::shared_ptr<const Data> data;
    {
        const std::scoped_lock hold(lock_);
        data = data_;
    }
    const auto machine = machineFor(*data);
    return answerQuestion({*data, *machine}, type, request);
}

std::shared_ptr<const Responder::Machine> Responder::machineFor(const Data &data)
{
    bool fresh = false;
    {
        const std::scoped_lock hold(lock_);
        fresh = isCurrent_ || !looksAtMachine(data);
    }
    if (!fresh) {
        readMachine();
    }
    const std::scoped_lock hold(lock_);
    return machine_;
}

void Responder::setFault(const FaultRequest &request)
{
    for (QuestionState &question : questions_) {
        if (!request.type || *request.type == question.type) {
            question.fault = request.fault;
        }
    }
    const std::string types = request.type ? "type " + std::to_string(*request.type) : "all types";
    STORAGE_LOG(NASCTRL_LOG_PROGRESS, "the fault of %s is %s %u", types.c_str(), rowOf(request.fault.kind).name,
                request.fault.value);
}

QuestionState *Responder::stateOf(uint32_t type)
{
    for (QuestionState &question : questions_) {
        if (question.type == type) {
            return &question;
        }
    }
    return nullptr;
}

} // namespace storage
