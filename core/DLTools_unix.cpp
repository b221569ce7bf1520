
namespace dlm {

} // namespace dlm
