#include "QuillfortAgent/ui/QtMainThreadExecutor.hpp"

#include <utility>

#include <QMetaObject>
#include <QObject>

namespace quillfort::ui {

QtMainThreadExecutor::QtMainThreadExecutor() : context_(std::make_unique<QObject>()) {}

QtMainThreadExecutor::~QtMainThreadExecutor() = default;

void QtMainThreadExecutor::post(std::function<void()> task) {
    // A queued call is an event posted to the context's thread: never inline,
    // and dropped unrun if the context is gone before the loop reaches it.
    QMetaObject::invokeMethod(context_.get(), std::move(task), Qt::QueuedConnection);
}

}  // namespace quillfort::ui
