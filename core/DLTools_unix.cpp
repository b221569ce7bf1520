
namespace dlm {


} // namespace dlm
