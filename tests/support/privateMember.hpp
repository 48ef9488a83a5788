// Reads private data members in tests, without a friend in the product.
//
//     TOLV_PRIVATE_MEMBER(Idle, ThreadPool, std::uint32_t, iv_Idle);
//     l_pool.*get(Idle())
//
// An explicit instantiation may name private members; it hands the member
// pointer out through a friend function. At namespace scope only.
#ifndef TOLV_TESTS_SUPPORT_PRIVATEMEMBER_HPP
#define TOLV_TESTS_SUPPORT_PRIVATEMEMBER_HPP

template <class Tag, typename Tag::type Member>
struct PrivateMember
{
    friend typename Tag::type get(Tag /*i_of*/)
    {
        return Member;
    }
};

#define TOLV_PRIVATE_MEMBER(Tag, Class, Type, member)                          \
    struct Tag                                                                 \
    {                                                                          \
        typedef Type Class::*type;                                             \
        friend type get(Tag);                                                  \
    };                                                                         \
    template struct PrivateMember<Tag, &Class::member>

#endif
