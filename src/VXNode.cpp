#include <VXNode.h>

#include <algorithm>
#include <utility>

namespace vexa {

static constexpr char kLogTag[] = "Vexa:VXNode";

// ---- Ports ------------------------------------------------------------------------------------

VXPort::VXPort(const std::string& name, Direction direction, const Format& format,
               std::shared_ptr<xc2::EventHandler> handler)
    : VXObject(name), mHandler(std::move(handler)), mDirection(direction), mFormat(format) {}

VXPort::~VXPort() = default;
VXInputPort::DelayObserver::~DelayObserver() = default;
VXInputPort::WorkInfo::~WorkInfo() = default;

VXInputPort::VXInputPort(const std::string& name, const Format& format,
                         std::shared_ptr<xc2::EventHandler> handler)
    : VXPort(name, INPUT, format, std::move(handler)) {
    VX_LOGD("Create I port %s", name.c_str());
}

VXInputPort::~VXInputPort() = default;

bool VXInputPort::connected() {
    VXLocker lock(mLock);
    return mConnected;
}

VXError VXInputPort::acceptConnection(const Format& format, std::weak_ptr<DelayObserver> observer) {
    VXLocker lock(mLock);
    // One sender for each input port: the order of its works, and the delay that is reported
    // upstream, are then those of one node.
    if (mConnected) return VX_INCOMPATIBLE;
    // Byte for byte. The library knows no formats, so it cannot know that two of them go together.
    if (format.type != mFormat.type) return VX_INCOMPATIBLE;
    if (observer.lock() == nullptr) return VX_BAD_VALUE;  // gone, or a reference to nothing
    // Weakly: the upstream port owns this one, and two strong references would keep both forever.
    mObserver = std::move(observer);
    mConnected = true;
    return VX_OK;
}

VXError VXInputPort::queueWorks(std::list<std::shared_ptr<VXSharedWork>> works) {
    if (mHandler == nullptr) return VX_NO_INIT;
    auto workInfo = std::make_shared<WorkInfo>();
    workInfo->works = std::move(works);
    workInfo->port = this;
    const uint64_t count = workInfo->works.size();
    // Before the post: the node may take the works before this thread gets on, and the count of
    // works taken must never be ahead of the count of works queued.
    mQueued.fetch_add(count, std::memory_order_relaxed);
    VX_LOGT("[%s] posting EVENT_DO_WORK with %zu works", name().c_str(), workInfo->works.size());
    auto event = std::make_shared<xc2::Event>(VXNode::EVENT_DO_WORK);
    event->info().put("works", std::move(workInfo));
    // A refusal is no failure of the sender: the node has stopped. The works go with the event, and
    // their release gives the sender its capacity back.
    if (mHandler->postAsync(std::move(event)) != xc2::XC2_OK) {
        mQueued.fetch_sub(count, std::memory_order_relaxed);
    }
    return VX_OK;
}

VXError VXInputPort::flush() {
    if (mHandler == nullptr) return VX_NO_INIT;
    // Without a time limit, since the caller relies on nothing old being left downstream. A refusal
    // means that the node does not run, so there is nothing to flush.
    mHandler->postSyncAndWait(std::make_shared<xc2::Event>(VXNode::EVENT_FLUSH), 0);
    return VX_OK;
}

void VXInputPort::setInputDelay(unsigned long delay) {
    setDelay(&VXInputPort::mInputDelay, delay, &DelayObserver::onInputDelayChanged);
}

void VXInputPort::setTotalDelay(unsigned long delay) {
    setDelay(&VXInputPort::mTotalDelay, delay, &DelayObserver::onTotalDelayChanged);
}

void VXInputPort::setDelay(uint64_t VXInputPort::*member, unsigned long delay, DelayReport report) {
    std::shared_ptr<DelayObserver> observer;
    {
        VXLocker lock(mLock);
        this->*member = delay;
        observer = mObserver.lock();
    }
    // Without the lock: the report takes the lock of the output port, and connectTo() takes the two
    // in the other order.
    if (observer != nullptr) ((*observer).*report)(name(), delay);
}

uint64_t VXInputPort::inputDelay() {
    VXLocker lock(mLock);
    return mInputDelay;
}

uint64_t VXInputPort::totalDelay() {
    VXLocker lock(mLock);
    return mTotalDelay;
}

VXOutputPort::VXOutputPort(const std::string& name, const Format& format,
                           std::shared_ptr<xc2::EventHandler> handler)
    : VXPort(name, OUTPUT, format, std::move(handler)) {
    VX_LOGD("Create O port %s", name.c_str());
}

VXOutputPort::~VXOutputPort() = default;

bool VXOutputPort::connected() {
    VXLocker lock(mLock);
    return !mDownstreamPorts.empty();
}

VXError VXOutputPort::connectTo(std::shared_ptr<VXInputPort> downstream) {
    VX_FAIL_IF_TAGGED("Vexa:VXGraph", downstream == nullptr, VX_BAD_VALUE);
    VXLocker lock(mLock);
    // The observer first, then the delays under mDelayLock. A delay that changes in between is
    // either read here, or its report waits for that lock and finds the entry.
    const VXError ret = downstream->acceptConnection(mFormat, shared_from_this());
    if (ret != VX_OK) return ret;
    {
        VXLocker delayLock(mDelayLock);
        mInputDelays[downstream->name()] = downstream->inputDelay();
        mTotalDelays[downstream->name()] = downstream->totalDelay();
    }
    mDownstreamPorts.push_back(std::move(downstream));
    return VX_OK;
}

VXError VXOutputPort::sendWorks(std::list<std::shared_ptr<VXSharedWork>> works) {
    VX_LOGT("[%s] sendWorks", name().c_str());
    // Every port gets a list of its own of the same works. A work is released when the last of the
    // downstream nodes lets it go.
    const auto send = [this](VXInputPort& port, std::list<std::shared_ptr<VXSharedWork>> batch) {
        VX_LOGT("[%s] Sending works to downstream [%s]", name().c_str(), port.name().c_str());
        return port.queueWorks(std::move(batch));
    };
    if (mDownstreamPorts.empty()) return VX_OK;
    for (auto port = mDownstreamPorts.begin(); port != std::prev(mDownstreamPorts.end()); ++port) {
        const VXError ret = send(**port, works);
        if (ret != VX_OK) return ret;
    }
    // The last port gets the list itself: most output ports feed one input port, and need no copy.
    return send(*mDownstreamPorts.back(), std::move(works));
}

void VXOutputPort::onInputDelayChanged(const std::string& inputPortName, unsigned long delay) {
    updateDelay(&mInputDelays, VXNode::EVENT_INPUT_DELAY, "input", inputPortName, delay);
}

void VXOutputPort::onTotalDelayChanged(const std::string& inputPortName, unsigned long delay) {
    updateDelay(&mTotalDelays, VXNode::EVENT_TOTAL_DELAY, "total", inputPortName, delay);
}

void VXOutputPort::updateDelay(DelayMap* delays, uint32_t eventId, const char* kind,
                               const std::string& inputPortName, unsigned long delay) {
    uint64_t oldMax = 0;
    uint64_t newMax = 0;
    {
        VXLocker lock(mDelayLock);
        const auto entry = delays->find(inputPortName);
        if (entry != delays->end()) {
            oldMax = largest(*delays);
            entry->second = delay;
            newMax = largest(*delays);
            // The capacity follows from the maximum alone. A change below it would only wake the
            // node.
            if (newMax != oldMax) postDelay(eventId, newMax);
        }
    }
    // A maximum is at least 1, so 0 means that the port was not found. Logged here, since only the
    // post may be done under mDelayLock.
    if (oldMax == 0) {
        VX_LOGE("[%s] Unrecognized input port : %s", name().c_str(), inputPortName.c_str());
    } else if (newMax != oldMax) {
        VX_LOGT("[%s] Notifying %s delay change %zu -> %zu", name().c_str(), kind, oldMax, newMax);
    }
}

// Under mDelayLock, so that the last one posted is the latest.
void VXOutputPort::postDelay(uint32_t eventId, uint64_t delay) {
    // Posted, not called: the regulator that has to know belongs to the node's event thread.
    if (mHandler == nullptr) return;
    auto event = std::make_shared<xc2::Event>(eventId);
    event->info().put("portId", name());
    event->info().put("delay", delay);
    mHandler->postAsync(std::move(event));
}

void VXOutputPort::reportTotalDelay(uint64_t known) {
    VXLocker lock(mDelayLock);
    // Compared and posted under one lock, so that no newer report comes before this one.
    const uint64_t now = largest(mTotalDelays);
    if (now != known) postDelay(VXNode::EVENT_TOTAL_DELAY, now);
}

uint64_t VXOutputPort::totalDelay() {
    VXLocker lock(mDelayLock);
    return largest(mTotalDelays);
}

uint64_t VXOutputPort::largest(const DelayMap& delays) {
    uint64_t result = 1;
    for (const auto& [port, delay] : delays) result = std::max(result, delay);
    return result;
}

// ---- Node description and configuration -------------------------------------------------------

void VXNode::ConfigStore::init(std::unique_ptr<VXNodeDescriptor> descriptor) {
    if (descriptor == nullptr) return;
    for (VXNodeDescriptor::ConfigEntry& e : descriptor->entries) {
        FrameMap* map = nullptr;
        switch (e.kind) {
            case VXNodeDescriptor::ConfigEntry::COMMAND:
                map = e.alternate == 1 ? &mAlternateCommands : &mCommands;
                break;
            case VXNodeDescriptor::ConfigEntry::TUNING:
                map = e.alternate == 1 ? &mAlternateTunings : &mTunings;
                break;
            default:
                // The other entries are still good, so this one costs a warning and not the node.
                VX_LOGW("Invalid e type for e : %s", e.key.c_str());
                continue;
        }
        (*map)[e.frameIndex].emplace_back(std::move(e.key), std::move(e.value));
    }
    mConfigs = std::move(descriptor->configs);
}

VXNode::ConfigStore::Pairs VXNode::ConfigStore::take(FrameMap* map, uint64_t frame) {
    const auto entry = map->find(frame);
    if (entry == map->end()) return {};
    // Removed, so that a command is carried out once, even when a node asks for a frame twice.
    Pairs pairs = std::move(entry->second);
    map->erase(entry);
    return pairs;
}

VXNode::ConfigStore::Map VXNode::ConfigStore::read(const FrameMap& map, uint64_t frame) {
    const auto entry = map.find(frame);
    if (entry == map.end()) return {};
    // The range constructor keeps the first of equal keys, as the header promises.
    return Map(entry->second.begin(), entry->second.end());
}

VXNode::ConfigStore::Pairs VXNode::ConfigStore::commandsAt(unsigned long frame) {
    return take(&mCommands, frame);
}

VXNode::ConfigStore::Pairs VXNode::ConfigStore::alternateCommandsAt(unsigned long frame) {
    return take(&mAlternateCommands, frame);
}

VXNode::ConfigStore::Map VXNode::ConfigStore::tuningsAt(unsigned long frame) const {
    return read(mTunings, frame);
}

VXNode::ConfigStore::Map VXNode::ConfigStore::alternateTuningsAt(unsigned long frame) const {
    return read(mAlternateTunings, frame);
}

VXError VXNode::getInitConfig(const std::string& key, std::string* value) {
    VX_FAIL_IF(value == nullptr, VX_BAD_VALUE);
    const auto entry = mConfigStore.configs().find(key);
    if (entry == mConfigStore.configs().end()) return VX_NOT_FOUND;
    *value = entry->second;
    VX_LOGD("%s: Config %s = %s", name().c_str(), key.c_str(), value->c_str());
    return VX_OK;
}

// ---- Node life cycle --------------------------------------------------------------------------

VXListener::~VXListener() = default;
VXNode::CompletedWorkInfo::~CompletedWorkInfo() = default;
VXNode::Handler::~Handler() = default;

xc2::XC2Status VXNode::Handler::onEvent(std::shared_ptr<xc2::Event> event) {
    // The queue delivers what is left while ~VXNode() stops it. Those events would call hooks of a
    // derived class that has been destroyed.
    if (mNode.mDying.load(std::memory_order_relaxed)) return xc2::XC2_CANCELED;
    return static_cast<xc2::XC2Status>(mNode.handleMessage(std::move(event)));
}

VXNode::VXNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor)
    : VXObject(name) {
    if (descriptor != nullptr) {
        mType = descriptor->type;
        mInputPortInfos = std::move(descriptor->inputPorts);
        mOutputPortInfos = std::move(descriptor->outputPorts);
        mConfigStore.init(std::move(descriptor));
    }
    // Both exist before set-up, since ports take a share of the handler when they are created. The
    // queue gets its thread only when the node starts.
    mEventQueue = std::make_shared<xc2::EventQueue>(name);
    mHandler = std::make_shared<Handler>(*this);
}

VXNode::~VXNode() {
    VX_LOGT("[%s] dying..", name().c_str());
    if (mState != TORN_DOWN) {
        mDying = true;  // the stop delivers what is queued, and there are no hooks left to call
        VX_LOGE("[%s] Node was not safely terminated !!", name().c_str());
        shutDown();
    }
}

std::vector<std::string> VXNode::getPreferredAllocatorTypes() {
    return {"any"};
}

VXError VXNode::onBufferFilled(int /*fd*/) {
    return VX_OK;
}

VXError VXNode::setup(bool beforeFence) {
    {
        VXLocker lock(mLock);
        if (mState != CREATED) return VX_INVALID_OPERATION;
        mState = SETTING_UP;
    }
    // The state is claimed under the lock, and the hook is called without it: addInputPort() takes
    // the lock, and checks for this state.
    const VXError ret = onSetup(beforeFence);
    {
        VXLocker lock(mLock);
        // A stop() inside the hook has the last word. A failed set-up may be tried again.
        if (mState == SETTING_UP) mState = ret == VX_OK ? SET_UP : CREATED;
    }
    VX_LOGT("[%s] Setup %s ..", name().c_str(), ret == VX_OK ? "Done" : "Failed!");
    return ret;
}

VXError VXNode::start(std::weak_ptr<VXListener> listener) {
    VX_LOGT("[%s] start()", name().c_str());
    {
        VXLocker lock(mLock);
        if (mState != SET_UP) return VX_INVALID_OPERATION;
    }

    // The state stays SET_UP until onStart() has succeeded, so a failed start can be repeated. Each
    // attempt has a regulator of its own and so begins with nothing outstanding.
    std::vector<std::pair<std::string, unsigned long>> portDelays;
    for (const auto& port : mOutputPorts) portDelays.emplace_back(port->name(), port->totalDelay());
    std::shared_ptr<Handler> handler;
    {
        VXLocker lock(mLock);
        // Listener and regulator come before the queue runs: its first event may need either.
        mListener = std::move(listener);
        mRegulator = std::make_shared<Regulator>(*this, 1, portDelays);
        VX_FAIL_IF(mRegulator == nullptr, VX_NO_MEMORY);
        mRegulator->init();
        handler = mHandler;
    }
    VX_FAIL_IF(mEventQueue == nullptr, VX_NO_INIT);
    VX_FAIL_IF(handler == nullptr, VX_NO_INIT);
    mEventQueue->start(0);
    handler->attach(mEventQueue);
    // Downstream nodes run already. A delay that one of them has reported since the delays were
    // read was refused by the queue, and would not be reported again.
    for (size_t i = 0; i < portDelays.size(); ++i) {
        mOutputPorts[i]->reportTotalDelay(portDelays[i].second);
    }

    VX_LOGT("[%s] Calling implementation start", name().c_str());
    const VXError ret = onStart();
    VX_FAIL_IF(ret != VX_OK, ret);
    {
        VXLocker lock(mLock);
        mState = RUNNING;
    }
    VX_LOGT("[%s] Started..", name().c_str());
    // The first scheduling pass is an event like every other, so that onProcess() is called on no
    // thread but the node's.
    handler->postAsync(std::make_shared<xc2::Event>(EVENT_START));
    return VX_OK;
}

VXError VXNode::stop() {
    VX_LOGT("[%s] stop invoked", name().c_str());
    {
        VXLocker lock(mLock);
        if (mState == CREATED || mState == STOPPED) return VX_INVALID_OPERATION;
    }
    // The queue first: it delivers what was posted, and no event can then meet what onStop() has
    // already taken down.
    if (mEventQueue != nullptr) mEventQueue->stop();
    // A failing onStop() stops the node all the same: there is no state to go back to.
    const VXError ret = onStop();
    shutDown();
    {
        VXLocker lock(mLock);
        mState = STOPPED;
    }
    VX_LOGT("[%s] Stopped..", name().c_str());
    return ret;
}

void VXNode::shutDown() {
    VX_LOGT("[%s] shutting down...", name().c_str());
    if (mEventQueue != nullptr) {
        VX_LOGT("[%s] Stopping event queue..", name().c_str());
        mEventQueue->stop();
    }
    // Taken out under the lock and destroyed after it. Ports and trackers may still hold the
    // handler; the stopped queue refuses what they post.
    std::shared_ptr<Handler> handler;
    std::shared_ptr<Regulator> regulator;
    {
        VXLocker lock(mLock);
        handler = std::move(mHandler);
        regulator = std::move(mRegulator);
        VX_LOGT("[%s] shut-down complete", name().c_str());
    }
}

void VXNode::teardown() {
    // Read without the lock: stop() decides under it.
    const State state = mState;
    if (state != CREATED && state != STOPPED) {
        VX_LOGW("[%s] Node being destroyed without stopping.. attempting stop", name().c_str());
        stop();
    }
    // A hook that has stopped the node on its own thread could not wait for that thread to end.
    if (mEventQueue != nullptr) mEventQueue->stop();
    VXLocker lock(mLock);
    // Whatever stop() returned: ~VXNode() has nothing left to stop.
    mState = TORN_DOWN;
}

VXNode::Status VXNode::status() {
    Status status;
    {
        VXLocker lock(mLock);
        status.state = mState;
        if (mRegulator != nullptr) {
            status.outstandingWorks = mRegulator->outstandingWorks();
            status.capacity = mRegulator->capacity();
        }
        for (const auto& port : mInputPorts) {
            // A node that has stopped has dropped the works that it had not taken.
            const bool stopped = status.state == STOPPED || status.state == TORN_DOWN;
            status.inputPorts.push_back({port->name(), stopped ? 0 : port->queuedWorks()});
        }
    }
    // One lock after the other, never both. The figures need not be of one moment, and two locks
    // held together would need an order.
    VXLocker lock(mPendingInputLock);
    status.pendingInputs = mPendingInputWorks.size();
    return status;
}

std::shared_ptr<VXNode::Handler> VXNode::handler() {
    VXLocker lock(mLock);
    return mHandler;
}

// Two fewer counts to write than with handler().
std::weak_ptr<VXNode::Handler> VXNode::weakHandler() {
    VXLocker lock(mLock);
    return mHandler;
}

std::shared_ptr<VXListener> VXNode::lockListener() {
    VXLocker lock(mLock);
    return mListener.lock();
}

std::shared_ptr<VXNode::Regulator> VXNode::lockRegulator() {
    VXLocker lock(mLock);
    return mRegulator;
}

VXError VXNode::postToHandler(std::shared_ptr<xc2::Event> event) {
    VXLocker lock(mLock);
    if (mHandler != nullptr) {
        // Under the lock, other than in returnWorks(): what these events carry runs no foreign code
        // when a refused post drops it.
        mHandler->postAsync(std::move(event));
    } else {
        // A report after shut-down is logged and no more: the run is over, and its caller, perhaps
        // a thread of the node's own, could do nothing about it.
        VX_LOGE("Handler is gone !!!!");
    }
    return VX_OK;
}

VXError VXNode::signalError(VXError error, std::string detail) {
    auto event = std::make_shared<xc2::Event>(EVENT_ERROR);
    event->info().put("errorCode", static_cast<uint32_t>(error));
    event->info().put("errorDetail", std::move(detail));
    return postToHandler(std::move(event));
}

VXError VXNode::signalComplete() {
    VX_LOGT("[%s] Test Complete", name().c_str());
    return postToHandler(std::make_shared<xc2::Event>(EVENT_COMPLETE));
}

// ---- Node ports -------------------------------------------------------------------------------

// The first port called `name`; empty when there is none.
// Takes no lock: ports are fixed once the node is set up.
template <typename Port>
static std::shared_ptr<Port> findPort(const std::vector<std::shared_ptr<Port>>& ports,
                                      const std::string& name) {
    for (const auto& port : ports) {
        if (port->name() == name) return port;
    }
    return nullptr;
}

VXError VXNode::addInputPort(const std::string& name, const VXPort::Format& format) {
    VXLocker lock(mLock);
    if (mState != SETTING_UP) return VX_INVALID_OPERATION;
    if (findPort(mInputPorts, name) != nullptr) return VX_ALREADY_EXISTS;
    mInputPorts.push_back(std::make_shared<VXInputPort>(name, format, mHandler));
    return VX_OK;
}

VXError VXNode::addOutputPort(const std::string& name, const VXPort::Format& format) {
    if (findPort(mOutputPorts, name) != nullptr) return VX_ALREADY_EXISTS;
    // handler() takes the lock, which is not recursive, so it cannot be held here.
    mOutputPorts.push_back(std::make_shared<VXOutputPort>(name, format, handler()));
    return VX_OK;
}

VXError VXNode::findInputPort(const std::string& name, std::shared_ptr<VXInputPort>* inputPort) {
    VX_FAIL_IF(inputPort == nullptr, VX_BAD_VALUE);
    auto port = findPort(mInputPorts, name);
    if (port == nullptr) return VX_ERROR;
    *inputPort = std::move(port);
    return VX_OK;
}

VXError VXNode::findOutputPort(const std::string& name, std::shared_ptr<VXOutputPort>* outPort) {
    VX_FAIL_IF(outPort == nullptr, VX_BAD_VALUE);
    auto port = findPort(mOutputPorts, name);
    if (port == nullptr) return VX_ERROR;
    *outPort = std::move(port);
    return VX_OK;
}

void VXNode::setInputDelay(unsigned long delay) {
    // On every port: the delay is the node's, and each upstream node plans with it.
    for (const auto& port : mInputPorts) port->setInputDelay(delay);
}

void VXNode::setTotalDelay(unsigned long delay) {
    for (const auto& port : mInputPorts) port->setTotalDelay(delay);
}

// ---- Node work processing ---------------------------------------------------------------------

VXError VXNode::handleMessage(std::shared_ptr<xc2::Event> event) {
    VX_FAIL_IF(event == nullptr, VX_BAD_VALUE);
    // A reference of its own: a hook may stop the node on this very thread, which drops the node's.
    const std::shared_ptr<Regulator> regulator = lockRegulator();
    switch (event->id()) {
        // Without a regulator the node has not started or has shut down. The result of a scheduling
        // pass is dropped here and below: the pass reports or logs what fails in it, and the poster
        // has nothing to do with it.
        case EVENT_START:
        case EVENT_SCHEDULE:
            VX_FAIL_IF(regulator == nullptr, VX_NO_INIT);
            regulator->schedule();
            return VX_OK;
        case EVENT_WORKS_DONE: {
            std::shared_ptr<CompletedWorkInfo> completedWorkInfo;
            VX_FAIL_IF(event->info().get("works", &completedWorkInfo) != xc2::XC2_OK, VX_ERROR);
            VX_FAIL_IF(completedWorkInfo == nullptr, VX_ERROR);
            VX_FAIL_IF(regulator == nullptr, VX_NO_INIT);
            regulator->notifyCompletedWorks(std::move(completedWorkInfo->works));
            return VX_OK;
        }
        case EVENT_WORK_RELEASED: {
            uint64_t resId = 0;
            VX_FAIL_IF(event->info().get("res-id", &resId) != xc2::XC2_OK, VX_ERROR);
            VX_FAIL_IF(regulator == nullptr, VX_NO_INIT);
            const VXError ret = regulator->releaseDownstreamWork(resId);
            // At once, and also for an unknown id: a node that waits for capacity gets no other
            // event.
            regulator->schedule();
            return ret;
        }
        case EVENT_ERROR: {
            uint32_t errorCode = 0;
            std::string errorDetail;
            event->info().get("errorCode", &errorCode);
            event->info().get("errorDetail", &errorDetail);
            // The listener may be held by this reference alone, and own this node: nothing of the
            // node is touched after it.
            if (const auto listener = lockListener()) {
                listener->onError(static_cast<VXError>(errorCode), std::move(errorDetail));
            }
            return VX_OK;
        }
        case EVENT_COMPLETE:
            // As for an error: nothing of the node is touched after the call.
            if (const auto listener = lockListener()) listener->onComplete();
            return VX_OK;
        case EVENT_INPUT_DELAY:
            // Ignored on purpose: the capacity follows from the total delays alone.
            return VX_OK;
        case EVENT_TOTAL_DELAY: {
            std::string portId;
            uint64_t delay = 0;
            VX_FAIL_IF(event->info().get("portId", &portId) != xc2::XC2_OK, VX_ERROR);
            VX_FAIL_IF(event->info().get("delay", &delay) != xc2::XC2_OK, VX_ERROR);
            VX_FAIL_IF(regulator == nullptr, VX_NO_INIT);
            return regulator->notifyDownstreamTotalDelay(portId, delay);
        }
        case EVENT_DO_WORK: {
            std::shared_ptr<VXInputPort::WorkInfo> workInfo;
            VX_FAIL_IF(event->info().get("works", &workInfo) != xc2::XC2_OK, VX_ERROR);
            VX_FAIL_IF(workInfo == nullptr, VX_ERROR);
            if (workInfo->works.empty()) return VX_OK;  // nothing has changed for a pass to act on
            // Ports of this node outlive it; another that was made with its handler may be gone.
            for (const auto& port : mInputPorts) {
                if (port.get() == workInfo->port) port->noteTaken(workInfo->works.size());
            }
            {
                // A lock of its own, since a node may use the pending inputs from threads of its
                // own.
                VXLocker lock(mPendingInputLock);
                mPendingInputWorks.splice(mPendingInputWorks.end(), workInfo->works);
            }
            // Last, so that works which arrive early are kept for the start.
            VX_FAIL_IF(regulator == nullptr, VX_NO_INIT);
            regulator->schedule();
            return VX_OK;
        }
        case EVENT_FLUSH:
            return handleFlush();
        case EVENT_DRAIN:
            VX_LOGT("[%s] Draining Node", name().c_str());
            onDrain();
            return VX_OK;
        case EVENT_FENCE: {
            int32_t fd = -1;
            event->info().get("fd", &fd);
            VX_LOGT("[%s] Signaling the Fence Node", name().c_str());
            return onBufferFilled(fd);
        }
        default:
            VX_LOGE("[%s] Unhandled Event %x", name().c_str(), event->id());
            return VX_INVALID_OPERATION;
    }
}

VXError VXNode::handleFlush() {
    VX_LOGT("[%s] Flushing Node", name().c_str());
    // The inputs first: when onFlush() drops what the node holds back, no older work can follow.
    erasePendingInputWorks();
    onFlush();
    // Downstream last. The flush queues up behind everything this node has sent, so it erases that
    // as well. It waits for each node in turn, and so for the whole graph below.
    for (const auto& outputPort : mOutputPorts) {
        VX_LOGT("[%s] Sending flush downstream", name().c_str());
        for (const auto& inputPort : outputPort->downstreamPorts()) {
            const VXError ret = inputPort->flush();
            if (ret != VX_OK) return ret;
        }
    }
    return VX_OK;
}

VXError VXNode::countAvailablePendingInputWorks(unsigned long maxCount, unsigned long* actualCount,
                                                bool* hasEOS) {
    VX_FAIL_IF(actualCount == nullptr, VX_BAD_VALUE);
    VX_FAIL_IF(hasEOS == nullptr, VX_BAD_VALUE);
    VX_FAIL_IF(maxCount == 0, VX_BAD_VALUE);
    *actualCount = 0;
    *hasEOS = false;
    VXLocker lock(mPendingInputLock);
    for (const auto& w : mPendingInputWorks) {
        VX_FAIL_IF(w == nullptr, VX_BAD_ADDRESS);
        // The regulator takes a batch that is not full only when it ends a stream. So the count
        // stops at the first end, and `*hasEOS` is about the last work counted.
        ++*actualCount;
        *hasEOS = (w->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (*hasEOS || *actualCount == maxCount) break;
    }
    VX_LOGT("[%s] available-inputs: %zu (requested=%zu) %s", name().c_str(), *actualCount, maxCount,
            *hasEOS ? "has-EOS" : "");
    return VX_OK;
}

VXError VXNode::getPendingInputWorks(unsigned long requestedCount,
                                     std::list<std::shared_ptr<VXSharedWork>>* works) {
    VX_FAIL_IF(works == nullptr, VX_BAD_VALUE);
    // Before the lock: a release runs hooks.
    works->clear();
    VXLocker lock(mPendingInputLock);
    VX_FAIL_IF(requestedCount > mPendingInputWorks.size(), VX_INVALID_OPERATION);
    // The whole list, on purpose: `requestedCount` is a lower bound.
    works->swap(mPendingInputWorks);
    VX_LOGT("[%s] get-inputs: returned %zu", name().c_str(), works->size());
    return VX_OK;
}

void VXNode::erasePendingInputWorks() {
    std::list<std::shared_ptr<VXSharedWork>> released;  // outlives the lock: releases run hooks
    VXLocker lock(mPendingInputLock);
    released.swap(mPendingInputWorks);
}

VXError VXNode::returnWorks(std::list<std::unique_ptr<VXWork>> works) {
    std::shared_ptr<Handler> handler;  // posted to without the lock: a refused post drops the works
    {
        VXLocker lock(mLock);
        VX_FAIL_IF(mHandler == nullptr, VX_NO_INIT);
        handler = mHandler;
    }
    auto e = std::make_shared<xc2::Event>(EVENT_WORKS_DONE);
    auto completedWorkInfo = std::make_shared<CompletedWorkInfo>();
    completedWorkInfo->works = std::move(works);
    VX_FAIL_IF(e->info().put("works", completedWorkInfo) != xc2::XC2_OK, VX_ERROR);
    handler->postAsync(std::move(e));
    return VX_OK;
}

// ---- Regulator --------------------------------------------------------------------------------

VXNode::DownstreamWorkTracker::~DownstreamWorkTracker() = default;

void VXNode::DownstreamWorkTracker::onRelease(VXSharedWork* work) {
    // Runs on the thread of the last release, so it touches nothing of the regulator: it reads the
    // work and posts. The work is all that the hook is given, hence the id inside it.
    uint64_t id = 0;
    if (work == nullptr || work->get("_res_id", &id) != VX_OK) {
        VX_LOGW("Invalid work released !");
        return;  // left undeleted on purpose: it is not one of ours
    }
    // Weakly: works in the hands of consumers may outlive the node that made them.
    if (const auto handler = mHandler.lock()) {
        // The event lies in the work's own memory, which stays until both are gone.
        auto event = std::allocate_shared<xc2::Event>(VXSharedWork::Allocator<xc2::Event>(work),
                                                      EVENT_WORK_RELEASED);
        event->info().put("res-id", id);
        // A refused post needs no care: a node that has stopped counts no longer.
        handler->postAsync(std::move(event));
    } else {
        VX_LOGE("Handler is gone !!!!");
    }
    delete work;
}

VXNode::Regulator::Regulator(VXNode& node, unsigned long batchSize,
                             std::vector<std::pair<std::string, unsigned long>> portDelays)
    : VXObject(node.name() + ".Regulator"),
      mNode(node),
      mBatchSize(batchSize),
      mPortDelays(portDelays.begin(), portDelays.end()),
      // Last, for it reads the two before it.
      mMaxDownstreamWorks(maxDownstreamCapacity()) {
    VX_LOGT("[%s] Created with downstream-capacity = %zu", name().c_str(), capacity());
}

VXNode::Regulator::~Regulator() = default;

VXError VXNode::Regulator::init() {
    mSelf = shared_from_this();
    return VX_OK;
}

unsigned long VXNode::Regulator::maxDownstreamCapacity() const {
    uint64_t maxDelay = 0;
    const char* maxPort = "";
    for (const auto& [port, delay] : mPortDelays) {
        if (delay > maxDelay) {
            maxDelay = delay;
            maxPort = port.c_str();
        }
    }
    // Saturated: any delay may be reported, and a wrapped sum would turn the largest into the
    // smallest and stall the node.
    const uint64_t more = mBatchSize + 2;
    const uint64_t capacity = maxDelay > UINT64_MAX - more ? UINT64_MAX : maxDelay + more;
    VX_LOGD("[%s] Downstream-capacity=%zu [Port '%s' has max delay = %zu. batchsize = %zu",
            name().c_str(), capacity, maxPort, maxDelay, mBatchSize);
    return capacity;
}

unsigned long VXNode::Regulator::freeDownstreamCapacity() const {
    const uint64_t outstanding = mDownstreamWorksTracker.size();
    const uint64_t most = capacity();
    VX_LOGD("[%s] freeDownstreamCapacity mDownstreamWorksTracker.size(%d) mMaxDownstreamWorks(%d)",
            name().c_str(), static_cast<int>(outstanding), static_cast<int>(most));
    // A delay may have shrunk since, so that more works are out than may be.
    return outstanding < most ? most - outstanding : 0;
}

bool VXNode::Regulator::canScheduleWorks(unsigned long* nWorksReady) {
    VX_FAIL_IF(nWorksReady == nullptr, false);
    *nWorksReady = 0;
    // Capacity before inputs: a source that makes its inputs on demand is not even asked while
    // nothing more may go out.
    const uint64_t freeCapacity = freeDownstreamCapacity();
    if (freeCapacity < mBatchSize) {
        VX_LOGT("[%s] Free-DownstreamCapacity(%zu) < batch-size(%zu)", name().c_str(), freeCapacity,
                mBatchSize);
        return false;
    }
    unsigned long count = 0;
    bool hasEOS = false;
    if (mNode.countAvailablePendingInputWorks(mBatchSize, &count, &hasEOS) != VX_OK) {
        VX_LOGT("[%s] canScheduleWorks: countAvailablePendingInputWorks returned error",
                name().c_str());
        return false;
    }
    // Not worth a message: a node that waits for input is the normal case.
    if (count == 0) return false;
    // At the end of the stream no further input will complete the batch.
    if (count < mBatchSize && !hasEOS) {
        VX_LOGT("[%s] Inputs(%zu) < BatchSize(%zu)", name().c_str(), count, mBatchSize);
        return false;
    }
    *nWorksReady = count;
    return true;
}

VXError VXNode::Regulator::schedule() {
    unsigned long nInputsReady = 0;
    if (!canScheduleWorks(&nInputsReady)) return VX_OK;
    VX_FAIL_IF(nInputsReady == 0u, VX_INVALID_OPERATION);

    std::list<std::shared_ptr<VXSharedWork>> inputWorks;
    VXError ret = mNode.getPendingInputWorks(nInputsReady, &inputWorks);
    VX_FAIL_IF(ret != VX_OK, ret);
    VX_FAIL_IF(inputWorks.size() < nInputsReady, VX_INVALID_OPERATION);
    const size_t nInputs = inputWorks.size();

    std::list<std::unique_ptr<VXWork>> possiblyProcessedWorks;
    // The inputs are moved in. Those that the hook does not keep are released when it returns, so
    // upstream gets its capacity back at once.
    ret = mNode.onProcess(std::move(inputWorks), &possiblyProcessedWorks);
    // Reported, and the pass goes on: what the hook has finished is good all the same, and the
    // listener decides whether the run ends.
    if (ret != VX_OK) {
        const std::string text = "Node [" + mNode.name() + "] failed to process !";
        mNode.signalError(ret, text);
        VX_LOGE("[%s] Error: %s: %d", name().c_str(), text.c_str(), ret);
    }
    if (!possiblyProcessedWorks.empty()) {
        // One output per input. A node that finishes another number, or later, uses returnWorks().
        if (possiblyProcessedWorks.size() != nInputs) {
            VX_LOGE("[%s] onProcess returned only %zu works out of %zu !", name().c_str(),
                    possiblyProcessedWorks.size(), nInputs);
            return VX_ERROR;
        }
        // An exchange and not a move, for the check below needs a list that is empty for certain.
        if (notifyCompletedWorks(std::exchange(possiblyProcessedWorks, {})) != VX_OK) {
            VX_LOGE("[%s] Failed to notify completed works", name().c_str());
            return VX_ERROR;
        }
    }
    VX_FAIL_IF(!possiblyProcessedWorks.empty(), VX_ERROR);

    // What is left is an event of its own. Releases, delays and errors that wait in the queue come
    // before it, so a node with endless inputs still handles them.
    unsigned long nMore = 0;
    if (canScheduleWorks(&nMore) && nMore > 0) {
        // Empty when the hook has stopped the node on this thread.
        if (const auto handler = mNode.handler()) {
            handler->postAsync(std::make_shared<xc2::Event>(EVENT_SCHEDULE));
        }
    }
    return VX_OK;
}

VXError VXNode::Regulator::notifyCompletedWorks(std::list<std::unique_ptr<VXWork>> works) {
    VX_LOGT("[%s] Notifying %zu completed works", name().c_str(), works.size());
    std::list<std::shared_ptr<VXSharedWork>> outgoing;
    for (std::unique_ptr<VXWork>& work : works) {
        // A null work gets no number; registerDownstreamWork() refuses it.
        if (work != nullptr) work->frameInfo().index = mFrameCounter++;
        std::shared_ptr<VXSharedWork> sharedWork;
        if (registerDownstreamWork(std::move(work), &sharedWork) != VX_OK) {
            VX_LOGE("[%s] Failed to register completed work !", name().c_str());
        }
        // The works registered so far are released with `outgoing`, and their ids come back by
        // events.
        VX_FAIL_IF(sharedWork == nullptr, VX_NO_MEMORY);
        outgoing.push_back(std::move(sharedWork));
    }
    // A sink's works are released here, so it never runs out of capacity.
    if (mNode.mOutputPorts.empty()) return VX_OK;
    VX_FAIL_IF(mNode.mOutputPorts.front() == nullptr, VX_ERROR);
    VX_LOGT("[%s] calling sendWorks : %zu works", name().c_str(), outgoing.size());
    return mNode.mOutputPorts.front()->sendWorks(std::move(outgoing));
}

VXError VXNode::Regulator::registerDownstreamWork(std::unique_ptr<VXWork> processedWork,
                                                  std::shared_ptr<VXSharedWork>* workToDispatch) {
    VX_FAIL_IF(processedWork == nullptr, VX_BAD_VALUE);
    VX_FAIL_IF(workToDispatch == nullptr, VX_BAD_VALUE);
    const unsigned long id = ++mWorkIdCounter;
    // In the work, because its release hook is given nothing else.
    processedWork->put<unsigned long>("_res_id", id);
    *workToDispatch = processedWork->share(DownstreamWorkTracker(mNode.weakHandler()));
    VX_FAIL_IF(*workToDispatch == nullptr, VX_NO_MEMORY);
    // After share(), so that a failure leaves nothing registered. Ids only grow, which keeps the
    // vector sorted for the binary search in releaseDownstreamWork().
    mDownstreamWorksTracker.push_back(id);
    mOutstanding.store(mDownstreamWorksTracker.size(), std::memory_order_relaxed);
    return VX_OK;
}

VXError VXNode::Regulator::registerInputWork(std::shared_ptr<VXSharedWork> inputWork,
                                             std::shared_ptr<VXSharedWork>* trackedInputWork) {
    VX_FAIL_IF(inputWork == nullptr, VX_BAD_VALUE);
    VX_FAIL_IF(trackedInputWork == nullptr, VX_BAD_VALUE);
    // Not tracked: the node that sent the work does that.
    *trackedInputWork = std::move(inputWork);
    return VX_OK;
}

VXError VXNode::Regulator::releaseDownstreamWork(unsigned long id) {
    const auto known =
        std::lower_bound(mDownstreamWorksTracker.begin(), mDownstreamWorksTracker.end(), id);
    if (known != mDownstreamWorksTracker.end() && *known == id) {
        mDownstreamWorksTracker.erase(known);
        mOutstanding.store(mDownstreamWorksTracker.size(), std::memory_order_relaxed);
        return VX_OK;
    }
    VX_LOGW("[%s] Downstream released untracked work (id: %llu)", name().c_str(),
            static_cast<unsigned long long>(id));
    return VX_NOT_FOUND;
}

VXError VXNode::Regulator::notifyDownstreamTotalDelay(const std::string& portId,
                                                      unsigned long delay) {
    VX_FAIL_IF(mPortDelays.count(portId) == 0, VX_NOT_FOUND);
    uint64_t& known = mPortDelays[portId];
    // A start may report a delay that has arrived in the meantime.
    if (known == delay) return VX_OK;
    known = delay;
    mMaxDownstreamWorks.store(maxDownstreamCapacity(), std::memory_order_relaxed);
    // A larger capacity may be just what the node waits for, and no other event would follow.
    return schedule();
}

// ---- Registry ---------------------------------------------------------------------------------

// Plain statics: the loader initializes this library before the programs and libraries that link
// it, whose static factories register here.
std::unordered_map<std::string, VXNodeBaseFactory*> VXNodeRegistry::sFactories;
VXMutex VXNodeRegistry::sLock;

VXNodeBaseFactory::VXNodeBaseFactory(const std::string& type) {
    // An announcement at error priority, on purpose: the default mask shows it.
    VX_LOGE("Register factory %s", type.c_str());
    VXNodeRegistry::RegisterFactory(type, this);
}

VXNodeBaseFactory::~VXNodeBaseFactory() = default;

VXError VXNodeRegistry::RegisterFactory(const std::string& type, VXNodeBaseFactory* factory) {
    if (factory == nullptr) return VX_ERROR;
    VXLocker lock(sLock);
    sFactories[type] = factory;
    return VX_OK;
}

VXError VXNodeRegistry::Create(const std::string& name,
                               std::unique_ptr<VXNodeDescriptor> descriptor,
                               std::unique_ptr<VXNode>* node) {
    if (node == nullptr || descriptor == nullptr) return VX_BAD_VALUE;
    // The subscript leaves a null entry for an unknown type, which is listed from then on. No lock,
    // here and below: registrations are over when graphs are built.
    VXNodeBaseFactory* factory = sFactories[descriptor->type];
    if (factory == nullptr) {
        VX_LOGE("No factory available for %s in %zu", descriptor->type.c_str(), sFactories.size());
    } else {
        factory->createNode(name, std::move(descriptor), node);
    }
    // Judged by the result, since createNode() returns none.
    return *node != nullptr ? VX_OK : VX_ERROR;
}

VXError VXNodeRegistry::ListRegisteredNodeTypes(std::vector<std::string>* list) {
    VX_FAIL_IF(list == nullptr, VX_ERROR);
    for (const auto& [type, factory] : sFactories) list->push_back(type);
    return VX_OK;
}

}  // namespace vexa
