#include "app/win32/pageant_window.h"

#include <aclapi.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "app/client_connection.h"
#include "app/win32/user_security.h"
#include "keys/buffer.h"
#include "log/agent_log.h"
#include "platform/win32/win_handle.h"

namespace {

constexpr DWORD STOP_WAIT_MS = 3000;

struct PageantThread {
    WinHandle ready{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    WinHandle ended{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::atomic<HWND> window{nullptr};
};

// Kept alive past a stop that gave up waiting: the thread still uses it.
PageantThread *pageant = nullptr;

// Unmaps a view of a file mapping.
class MappedView {
public:
    explicit MappedView(void *view) : view_(static_cast<uint8_t *>(view)) {}
    ~MappedView()
    {
        if (view_)
            UnmapViewOfFile(view_);
    }
    MappedView(const MappedView &) = delete;
    MappedView &operator=(const MappedView &) = delete;
    uint8_t *get() const { return view_; }

private:
    uint8_t *view_;
};

// One Pageant request as a client stream: the request is read from the
// mapping and the reply written over it; then the stream ends.
class MappingStream : public ClientStream {
public:
    MappingStream(uint8_t *view, size_t request_size, size_t capacity)
        : view_(view), request_size_(request_size), capacity_(capacity)
    {
    }
    size_t read_some(uint8_t *data, size_t size) override
    {
        size_t count = std::min(size, request_size_ - read_);
        memcpy(data, view_ + read_, count);
        read_ += count;
        return count;
    }
    bool write_all(const uint8_t *data, size_t size) override
    {
        if (replied_ || size > capacity_)
            return false;
        memcpy(view_, data, size);
        replied_ = true;
        return true;
    }
    void interrupt() override {}
    uint32_t log_handle() const override { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(view_)); }
    bool replied() const { return replied_; }

private:
    uint8_t *view_;
    size_t request_size_, read_ = 0, capacity_;
    bool replied_ = false;
};

// Wine gives an object made with default security no owner at all, where
// Windows always gives it the maker's default owner; Wine keeps but does not
// enforce object security, so there an ownerless mapping is let through.
bool running_under_wine()
{
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// The mapping's owner is the user, or the default owner the user's programs
// give their objects (for an elevated administrator, the Administrators
// group), as Pageant itself accepts.
bool owned_by_user(HANDLE mapping)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(mapping, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                        &descriptor) != ERROR_SUCCESS)
        return false;
    bool accepted;
    if (!owner) {
        accepted = running_under_wine();
    } else {
        std::vector<BYTE> user = current_user_sid(), default_owner = default_owner_sid();
        accepted = (!user.empty() && EqualSid(owner, user.data())) ||
                   (!default_owner.empty() && EqualSid(owner, default_owner.data()));
    }
    LocalFree(descriptor);
    return accepted;
}

// The mapping's name: zero-terminated within the copied bytes.
bool mapping_name(const COPYDATASTRUCT *data, std::string *name)
{
    const char *text = static_cast<const char *>(data->lpData);
    if (!text || data->cbData == 0 || !memchr(text, 0, data->cbData))
        return false;
    *name = text;
    return !name->empty();
}

// Serves the request in the named mapping; nonzero when the reply is there.
LRESULT answer_request(const COPYDATASTRUCT *data)
{
    std::string name;
    if (!mapping_name(data, &name)) {
        agent_log("Pageant request refused: no mapping name");
        return 0;
    }
    // READ_CONTROL lets the owner be read.
    WinHandle mapping(OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE | READ_CONTROL, FALSE, name.c_str()));
    if (!mapping) {
        agent_log("Pageant request refused: no file mapping %s", name.c_str());
        return 0;
    }
    if (!owned_by_user(mapping.get())) {
        agent_log("Pageant request refused: file mapping %s does not belong to the user", name.c_str());
        return 0;
    }
    MappedView view(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0));
    MEMORY_BASIC_INFORMATION region = {};
    if (!view.get() || !VirtualQuery(view.get(), &region, sizeof region) || region.RegionSize < 5) {
        agent_log("Pageant request refused: file mapping %s cannot be read", name.c_str());
        return 0;
    }
    size_t capacity = std::min<size_t>(region.RegionSize, PAGEANT_MAX_MESSAGE);
    uint32_t length = get_u32(view.get());
    if (length > capacity - 4) {
        agent_log("Pageant request refused: %lu bytes do not fit %lu", static_cast<unsigned long>(length),
                  static_cast<unsigned long>(capacity - 4));
        return 0;
    }
    MappingStream stream(view.get(), 4 + length, capacity);
    uint64_t connection = admit_client_connection(&stream);
    if (!connection)
        return 0;
    serve_client_connection(&stream, Framing::EXACT_LENGTH, connection);
    release_client_connection(connection);
    return stream.replied() ? 1 : 0;
}

LRESULT CALLBACK pageant_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_COPYDATA: {
        auto *data = reinterpret_cast<const COPYDATASTRUCT *>(lparam);
        return data && data->dwData == PAGEANT_COPYDATA_ID ? answer_request(data) : 0;
    }
    case WM_CLOSE: DestroyWindow(window); return 0;
    case WM_DESTROY: PostQuitMessage(0); return 0;
    default: return DefWindowProcW(window, message, wparam, lparam);
    }
}

void run_window(PageantThread *state)
{
    HINSTANCE instance = GetModuleHandleW(nullptr);
    WNDCLASSW window_class = {};
    window_class.lpfnWndProc = pageant_procedure;
    window_class.hInstance = instance;
    window_class.lpszClassName = PAGEANT_WINDOW_CLASS;
    HWND window = nullptr;
    if (RegisterClassW(&window_class))
        window = CreateWindowExW(0, PAGEANT_WINDOW_CLASS, PAGEANT_WINDOW_TITLE, 0, 0, 0, 0, 0, nullptr, nullptr,
                                 instance, nullptr);
    state->window = window;
    SetEvent(state->ready.get());
    if (window) {
        MSG message;
        while (GetMessageW(&message, nullptr, 0, 0) > 0)
            DispatchMessageW(&message);
    }
    UnregisterClassW(PAGEANT_WINDOW_CLASS, instance);
    SetEvent(state->ended.get());
}

}  // namespace

void pageant_window_start()
{
    if (pageant)
        return;
    if (FindWindowW(PAGEANT_WINDOW_CLASS, PAGEANT_WINDOW_TITLE)) {
        agent_log("A Pageant window exists already (Pageant or another agent?); running without the Pageant "
                  "protocol.");
        return;
    }
    auto state = std::make_unique<PageantThread>();
    try {
        std::thread(run_window, state.get()).detach();
    } catch (const std::system_error &) {
        agent_log("The Pageant window could not be created; running without the Pageant protocol.");
        return;
    }
    pageant = state.release();
    WaitForSingleObject(pageant->ready.get(), INFINITE);
    if (pageant->window)
        agent_log("Serving Pageant clients.");
    else
        agent_log("The Pageant window could not be created; running without the Pageant protocol.");
}

void pageant_window_stop()
{
    if (!pageant)
        return;
    if (HWND window = pageant->window)
        PostMessageW(window, WM_CLOSE, 0, 0);
    if (WaitForSingleObject(pageant->ended.get(), STOP_WAIT_MS) == WAIT_OBJECT_0)
        delete pageant;
    pageant = nullptr;
}
