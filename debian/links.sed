# The links of the pages, as they are in the packages. A page of the tree links to the tree's files.
s#](\.\./platform/include/platform)#](../../../include/billing-service/platform)#g
s#](\.\./platform/example)#](examples/example)#g
s#](\.\./platform/linux/billing-platform\.map)#](examples/billing-platform.map)#g
s#](\.\./lab/samples)#](examples)#g
# No package has this file.
s#\[\([^]]*\)\](\.\./CONTRIBUTING\.md)#`\1` of the source#g
