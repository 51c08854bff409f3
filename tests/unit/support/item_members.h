// item_members.h - reads and fills all twenty members of a CBillingItem.
#pragma once

#include "BillingTypes.h"

#include <array>
#include <map>
#include <string>

inline constexpr std::array<std::string CBillingItem::*, 20> ITEM_MEMBERS{
    &CBillingItem::strSpare0,   &CBillingItem::strSpare1,     &CBillingItem::strSpare2,
    &CBillingItem::strSpare3,   &CBillingItem::strSpare4,     &CBillingItem::strCustomId,
    &CBillingItem::strSpare5,   &CBillingItem::strSpare6,     &CBillingItem::strSpare7,
    &CBillingItem::strAppId,    &CBillingItem::strServerType, &CBillingItem::strCheckValue,
    &CBillingItem::strItemType, &CBillingItem::strPageNumber, &CBillingItem::strSpare8,
    &CBillingItem::strSpare9,   &CBillingItem::strSpare10,    &CBillingItem::strInvoiceId,
    &CBillingItem::strSpare11,  &CBillingItem::strSpare12,
};

/// The non-empty members, by their index in the record.
inline std::map<std::size_t, std::string> FilledMembers(const CBillingItem& oItem)
{
    std::map<std::size_t, std::string> filled;
    for (std::size_t i = 0; i < ITEM_MEMBERS.size(); ++i) {
        if (!(oItem.*ITEM_MEMBERS[i]).empty()) {
            filled[i + 1] = oItem.*ITEM_MEMBERS[i];
        }
    }
    return filled;
}

/// An item with a different text in each member.
inline CBillingItem FullItem()
{
    CBillingItem oItem;
    for (std::size_t i = 0; i < ITEM_MEMBERS.size(); ++i) {
        oItem.*ITEM_MEMBERS[i] = "member " + std::to_string(i + 1);
    }
    return oItem;
}
