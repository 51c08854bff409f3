"""The life of purchases: steps such as approval, renewal and refund, planned on the lab's own clock."""
