// Anchors the test-support library; the helpers live in their own files.
namespace quillfort::testing {
void testSupportAnchor() {}
}  // namespace quillfort::testing
