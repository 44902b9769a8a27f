#pragma once

// For tests of this room alone.

#include "replication/repository/store/StoreFixture.h"

namespace Replication {

/// A new store, and short ways to make and to read files of it.
class NodeFixture : public StoreFixture {
protected:
    NodeFixture() { create(); }

    void snapshot() {
        store_->directories().forget();
        (void)StoreFixture::snapshot();
    }
    /// A file with a "Data" stream of this content.
    std::shared_ptr<SinkHandle> file(QStringList const& path, QByteArray const& content = {}) {
        std::shared_ptr<SinkHandle> handle =
            value(store_->paths().createStream(writing(), path, dataStreamName, {}));
        EXPECT_TRUE(handle && handle->streamHandle);
        if (handle && !content.isEmpty()) {
            EXPECT_TRUE(store_->paths().write(writing(), *handle, 0, content.constData(),
                                              static_cast<std::uint32_t>(content.size())));
        }
        return handle;
    }
    [[nodiscard]] static QByteArray contentOf(FileNode::Pointer const& node,
                                              QString const& stream = dataStreamName) {
        std::shared_ptr<StreamHandle> const handle =
            node ? value(node->openStream(stream)) : nullptr;
        if (!handle)
            return "(none)";
        QByteArray result(static_cast<qsizetype>(handle->length()), '\0');
        EXPECT_EQ(handle->read(0, result.data(), static_cast<std::uint32_t>(result.size())),
                  result.size());
        return result;
    }
    /// The content at a snapshot; "(none)" when there is no such file.
    [[nodiscard]] QByteArray at(Instance instance, QStringList const& path) {
        return contentOf(value(store_->passiveHandle(path, instance)));
    }
    [[nodiscard]] QByteArray live(QStringList const& path) {
        Directories::Located const located =
            value(store_->directories().locate(path, PathMode::DoNotBuildPath));
        return located.found ? contentOf(value(store_->passiveHandles().get(
                                   value(store_->pointers().getNode(located.key.fileId())))))
                             : QByteArray("(none)");
    }
};

} // namespace Replication
